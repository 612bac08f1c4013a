#include "orvo/verification/evaluation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace orvo::verification {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

TEST(Evaluation, RatesFollowFromTheDivider) {
  Rates result = derive_rates(1000, {});
  EXPECT_EQ(result.divider, 1000u);
  EXPECT_DOUBLE_EQ(result.effective_hz, 30978.26086956522);
  EXPECT_NEAR(result.expected_decoded_hz, 30981.3590, 0.0001);
  result = derive_rates(0, {});
  EXPECT_EQ(result.effective_hz, 0);
  EXPECT_EQ(result.expected_decoded_hz, 0);
}

TEST(Evaluation, OverflowIsRequiredWhereOneRecordCannotCarryThePeriod) {
  const struct {
    std::uint32_t divider;
    std::uint8_t packed_bits;
    std::uint16_t packed_quantum_ps;
    bool required;
  } cases[] = {{16, 16, 8, false},         {17, 16, 8, true},  // 516.44, 548.72 against 524.28 ns
               {17, 16, 9, false},         {33265, 30, 1, false},  // less 1 ps
               {33266, 30, 1, true},       {4000000000, 31, 1, false}, {4000000000, 0, 8, false},
               {4000000000, 16, 0, false}, {0, 16, 8, false}};
  for (const auto& c : cases) {
    EvaluationSettings settings;
    settings.packed_bits = c.packed_bits;
    settings.packed_quantum_ps = c.packed_quantum_ps;
    EXPECT_EQ(derive_rates(c.divider, settings).overflow_required, c.required)
        << c.divider << ' ' << +c.packed_bits;
  }
}

RunResult judged(const std::vector<timing::TimeTag>& tags, const EvaluationSettings& settings,
                 double expected_decoded_hz) {
  TagStatistics statistics;
  for (const timing::TimeTag& tag : tags) statistics.add({&tag, 1});  // batches must not matter
  return judge(statistics, {.expected_decoded_hz = expected_decoded_hz}, settings);
}

TEST(Evaluation, ChannelStatistics) {
  const struct {
    std::vector<std::int64_t> times_ps;
    std::int64_t first_ps, last_ps;
    double measured_hz, ppm_error;
  } cases[] = {
      {{}, 0, 0, 0, 0},
      {{7}, 0, 0, 0, 0},
      {{7, 7, 7}, 7, 7, 0, 0},
      {{2000000000, 0, 1000000000}, 0, 2000000000, 1000, 0},
      {{-1000000000, 1000000000, 5}, -1000000000, 1000000000, 1000, 0},
      {{0, 800000000}, 0, 800000000, 1250, 250000},
      {{1, 1250000001}, 1, 1250000001, 800, -200000},
      {{kMax, kMin}, kMin, kMax, 0, 0},  // the span takes more than 63 bits
      {{kMax, 0}, 0, kMax, 1e12 / 9223372036854775807.0, -999999.99989157979},
  };
  for (const auto& c : cases) {
    std::vector<timing::TimeTag> tags;
    for (const std::int64_t time_ps : c.times_ps) tags.push_back({2, time_ps});
    const RunResult result = judged(tags, {}, 1000);
    const ChannelResult& channel = result.channels[2];
    SCOPED_TRACE(testing::PrintToString(c.times_ps));
    EXPECT_EQ(channel.count, tags.size());
    EXPECT_EQ(channel.first_ps, c.first_ps);
    EXPECT_EQ(channel.last_ps, c.last_ps);
    EXPECT_DOUBLE_EQ(channel.measured_hz, c.measured_hz);
    EXPECT_DOUBLE_EQ(channel.ppm_error, c.ppm_error);
    EXPECT_EQ(result.channels[1].count, 0u);
    EXPECT_EQ(judged(tags, {}, 0).channels[2].ppm_error, 0);
  }
}

TEST(Evaluation, ChannelVerdict) {
  const struct {
    unsigned tags;  // 800 us apart, so 1250 Hz
    std::uint64_t min_tags_per_channel;
    double tolerance_ppm, expected_decoded_hz;
    bool pass;
  } cases[] = {
      {2, 2, 250000, 1000, true},  {2, 2, 249999.999, 1000, false}, {2, 3, 250000, 1000, false},
      {2, 0, NAN, 1000, false},    {2, 2, INFINITY, 1e-320, false},  // the error is infinite
      {2, 2, 0, 0, true},           // without an expected rate the count alone decides
      {2, 2, 200000, 2000, false},  // too slow
      {2, 2, -1, 0, false},        {0, 1, 25, 1000, false},         {0, 0, 0, 1000, true}};
  for (const auto& c : cases) {
    EvaluationSettings settings;
    settings.min_tags_per_channel = c.min_tags_per_channel;
    settings.tolerance_ppm = c.tolerance_ppm;
    std::vector<timing::TimeTag> tags;
    for (unsigned i = 0; i < c.tags; ++i) tags.push_back({0, i * 800000000});
    EXPECT_EQ(judged(tags, settings, c.expected_decoded_hz).channels[0].pass, c.pass)
        << c.tags << ' ' << c.min_tags_per_channel << ' ' << c.tolerance_ppm;
  }
}

TEST(Evaluation, MaskChoosesWhichChannelsCountInTheRunsVerdict) {
  EvaluationSettings settings;
  settings.min_tags_per_channel = 1;
  const std::pair<unsigned, bool> cases[] = {{5, true}, {1, true}, {0, false}, {15, false}};
  for (const auto& [mask, pass] : cases) {
    settings.channel_mask = static_cast<std::uint8_t>(mask);
    const RunResult result = judged({{0, 1}, {2, 1}, {4, 1}, {255, 1}}, settings, 1000);
    EXPECT_EQ(result.pass, pass) << mask;
    EXPECT_EQ(result.decoded_tags, 4u);
    EXPECT_TRUE(result.channels[0].pass && result.channels[2].pass);
    EXPECT_FALSE(result.channels[1].pass || result.channels[3].pass);
  }
}

}  // namespace
}  // namespace orvo::verification
