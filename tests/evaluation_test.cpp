#include "orvo/verification/evaluation.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace orvo::verification {
namespace {

using timing::TimeTag;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

TEST(Evaluation, RatesFollowFromTheDivider) {
  RunResult result;
  derive_rates(1000, EvaluationSettings(), result);
  EXPECT_EQ(result.divider, 1000u);
  EXPECT_DOUBLE_EQ(result.effective_hz, 30978.26086956522);
  EXPECT_NEAR(result.expected_decoded_hz, 30981.3590, 0.0001);
  derive_rates(0, EvaluationSettings(), result);
  EXPECT_EQ(result.effective_hz, 0);
  EXPECT_EQ(result.expected_decoded_hz, 0);
}

TEST(Evaluation, OverflowIsRequiredWhereOneRecordCannotCarryThePeriod) {
  const struct {
    std::uint32_t divider;
    std::uint8_t packed_bits;
    std::uint16_t packed_quantum_ps;
    bool required;
  } cases[] = {
      {16, 16, 8, false},     // 516.44 ns against 524.28 ns
      {17, 16, 8, true},      // 548.72 ns
      {17, 16, 9, false},     // against 589.82 ns
      {33265, 30, 1, false},  // 1.073710 ms against 1.073742 ms, less 1 ps
      {33266, 30, 1, true},       {1, 1, 1, true},
      {4000000000, 31, 1, false}, {4000000000, 0, 8, false},
      {4000000000, 16, 0, false}, {0, 16, 8, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.divider);
    EvaluationSettings settings;
    settings.packed_bits = c.packed_bits;
    settings.packed_quantum_ps = c.packed_quantum_ps;
    RunResult result;
    derive_rates(c.divider, settings, result);
    EXPECT_EQ(result.overflow_required, c.required);
  }
}

RunResult judged(const std::vector<TimeTag>& tags, const EvaluationSettings& settings,
                 double expected_decoded_hz) {
  TagStatistics statistics;
  for (const TimeTag& tag : tags) {  // a batch each: batches must not matter
    statistics.add({&tag, 1});
  }
  RunResult result;
  result.expected_decoded_hz = expected_decoded_hz;
  judge(statistics, settings, result);
  return result;
}

TEST(Evaluation, ChannelStatistics) {
  const struct {
    const char* name;
    std::vector<std::int64_t> times_ps;
    std::int64_t first_ps;
    std::int64_t last_ps;
    double measured_hz;
    double ppm_error;
  } cases[] = {
      {"no tag", {}, 0, 0, 0, 0},
      {"one tag", {7}, 0, 0, 0, 0},
      {"one time only", {7, 7, 7}, 7, 7, 0, 0},
      {"in order", {0, 1000000000, 2000000000}, 0, 2000000000, 1000, 0},
      {"out of order", {2000000000, 0, 1000000000}, 0, 2000000000, 1000, 0},
      {"before zero", {-1000000000, 1000000000, 5}, -1000000000, 1000000000, 1000, 0},
      {"too fast", {0, 800000000}, 0, 800000000, 1250, 250000},
      {"too slow", {1, 1250000001}, 1, 1250000001, 800, -200000},
      {"span beyond 63 bits", {kMax, kMin}, kMin, kMax, 0, 0},
      {"largest span", {kMax, 0}, 0, kMax, 1e12 / 9223372036854775807.0, -999999.99989157979},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<TimeTag> tags;
    for (const std::int64_t time_ps : c.times_ps) {
      tags.push_back({2, time_ps});
    }
    const RunResult result = judged(tags, EvaluationSettings(), 1000);
    EXPECT_EQ(result.decoded_tags, tags.size());
    EXPECT_EQ(result.channels[2].count, tags.size());
    EXPECT_EQ(result.channels[2].first_ps, c.first_ps);
    EXPECT_EQ(result.channels[2].last_ps, c.last_ps);
    EXPECT_DOUBLE_EQ(result.channels[2].measured_hz, c.measured_hz);
    EXPECT_DOUBLE_EQ(result.channels[2].ppm_error, c.ppm_error);
    EXPECT_EQ(result.channels[1].count, 0u);
    EXPECT_EQ(judged(tags, EvaluationSettings(), 0).channels[2].ppm_error, 0);
  }
}

TEST(Evaluation, ChannelVerdict) {
  const struct {
    std::uint64_t tags;  // 800 us apart, so 1250 Hz
    std::uint64_t min_tags_per_channel;
    double tolerance_ppm;
    double expected_decoded_hz;
    bool pass;
  } cases[] = {
      {2, 2, 250000, 1000, true}, {2, 2, 249999.999, 1000, false},  {2, 3, 250000, 1000, false},
      {2, 0, kNan, 1000, false},  {2, 2, kInfinity, 1e-320, false},  // the error is infinite
      {2, 2, 0, 0, true},  // without an expected rate the count alone decides
      {2, 2, -1, 0, false},       {0, 1, 25, 1000, false},          {0, 0, 0, 1000, true},
      {0, 0, -1, 1000, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.tags << ' ' << c.tolerance_ppm);
    EvaluationSettings settings;
    settings.min_tags_per_channel = c.min_tags_per_channel;
    settings.tolerance_ppm = c.tolerance_ppm;
    std::vector<TimeTag> tags;
    for (std::uint64_t i = 0; i < c.tags; ++i) {
      tags.push_back({0, static_cast<std::int64_t>(i * 800000000)});
    }
    EXPECT_EQ(judged(tags, settings, c.expected_decoded_hz).channels[0].pass, c.pass);
  }
}

TEST(Evaluation, MaskChoosesWhichChannelsCountInTheRunsVerdict) {
  EvaluationSettings settings;
  settings.min_tags_per_channel = 1;
  const std::vector<TimeTag> tags = {{0, 1}, {2, 1}, {4, 1}, {255, 1}};
  for (const auto& [mask, pass] : std::vector<std::pair<std::uint8_t, bool>>{
           {0x05, true}, {0x01, true}, {0x00, false}, {0x0F, false}, {0x06, false}}) {
    settings.channel_mask = mask;
    const RunResult result = judged(tags, settings, 1000);
    EXPECT_EQ(result.pass, pass) << +mask;
    EXPECT_EQ(result.decoded_tags, 4u);
    EXPECT_TRUE(result.channels[0].pass && result.channels[2].pass);
    EXPECT_FALSE(result.channels[1].pass || result.channels[3].pass);
  }
}

}  // namespace
}  // namespace orvo::verification
