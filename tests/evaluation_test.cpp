#include "orvo/verification/evaluation.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "orvo/timing/stream_files.h"
#include "support/scratch.h"

namespace orvo::verification {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

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
  EXPECT_EQ(derive_rates(0, {}).expected_decoded_hz, 0);
  timing::StreamFileHeader raw;  // whose records carry any period
  raw.stream_format = timing::Format::raw64;
  EXPECT_FALSE(derive_rates(30978, settings_of(raw)).overflow_required);
}

TEST(Evaluation, ChannelStatisticsAndVerdict) {
  const struct {
    std::vector<std::int64_t> times_ps;
    double expected_hz, tolerance_ppm;
    std::uint64_t min_tags;
    std::int64_t first_ps, last_ps;
    double measured_hz, ppm_error;
    bool pass;
  } cases[] = {
      {{}, 1000, 0, 1, 0, 0, 0, 0, false},
      {{}, 1000, 0, 0, 0, 0, 0, 0, true},
      {{7}, 1000, 0, 1, 0, 0, 0, 0, true},
      {{7, 7, 7}, 1000, 0, 1, 7, 7, 0, 0, true},
      {{2000000000, 0, 1000000000}, 1000, 0, 3, 0, 2000000000, 1000, 0, true},
      {{-1000000000, 1000000000, 5}, 1000, 0, 4, -1000000000, 1000000000, 1000, 0, false},
      {{0, 800000000}, 1000, 250000, 2, 0, 800000000, 1250, 250000, true},
      {{0, 800000000}, 1000, 249999.999, 2, 0, 800000000, 1250, 250000, false},
      {{0, 800000000}, 1000, NAN, 0, 0, 800000000, 1250, 250000, false},
      {{0, 800000000}, 1e-320, INFINITY, 2, 0, 800000000, 1250, INFINITY, false},
      {{0, 800000000}, 0, 0, 2, 0, 800000000, 1250, 0, true},  // without a rate the count decides
      {{0, 800000000}, 0, -1, 2, 0, 800000000, 1250, 0, false},
      {{1, 1250000001}, 1000, 199999.999, 2, 1, 1250000001, 800, -200000, false},
      {{kMax, kMin}, 1000, 0, 2, kMin, kMax, 0, 0, true},  // the span takes more than 63 bits
      {{kMax, 0}, 1000, 1e6, 2, 0, kMax, 1e12 / 9223372036854775807.0, -999999.99989157979, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.times_ps) + testing::PrintToString(c.tolerance_ppm));
    TagStatistics statistics;
    for (const std::int64_t time_ps : c.times_ps) {
      const timing::TimeTag tags[] = {{2, time_ps}, {4, 1}, {255, 1}};  // two channels too many
      statistics.add(tags);
    }
    EvaluationSettings settings;
    settings.channel_mask = 4;
    settings.tolerance_ppm = c.tolerance_ppm;
    settings.min_tags_per_channel = c.min_tags;
    const RunResult result = judge(statistics, {.expected_decoded_hz = c.expected_hz}, settings);
    const ChannelResult& channel = result.channels[2];
    EXPECT_EQ(result.decoded_tags, 3 * c.times_ps.size());
    EXPECT_EQ(channel.count, c.times_ps.size());
    EXPECT_EQ(channel.first_ps, c.first_ps);
    EXPECT_EQ(channel.last_ps, c.last_ps);
    EXPECT_DOUBLE_EQ(channel.measured_hz, c.measured_hz);
    EXPECT_DOUBLE_EQ(channel.ppm_error, c.ppm_error);
    EXPECT_EQ(channel.pass, c.pass);
    EXPECT_EQ(result.pass, c.pass);
    EXPECT_EQ(result.channels[3].count, 0U);
  }
}

TEST(Evaluation, StatisticsOfTurnsAreThoseOfEachTag) {
  std::vector<timing::TimeTag> turns;
  for (std::int64_t i = 0; i < 600; ++i) {
    turns.push_back({static_cast<std::uint8_t>(i % 4), i / 4 * 100 + i % 4});
  }
  for (std::size_t place = 0; place < turns.size(); ++place) {
    const timing::TimeTag tag = turns[place];
    const auto next = static_cast<std::uint8_t>((tag.channel + 1) % 4);
    for (const timing::TimeTag& odd :
         {tag, {next, tag.time_ps}, {200, tag.time_ps}, {tag.channel, -7}, {tag.channel, 99999}}) {
      SCOPED_TRACE(testing::Message() << place << ": " << int{odd.channel} << ' ' << odd.time_ps);
      turns[place] = odd;
      TagStatistics at_once, one_by_one;
      at_once.add(turns);
      for (const timing::TimeTag& one : turns) {
        one_by_one.add(std::span(&one, 1));
      }
      ASSERT_EQ(at_once.tags(), turns.size());
      for (std::size_t channel = 0; channel < timing::kChannels; ++channel) {
        ASSERT_EQ(at_once.channel(channel).count, one_by_one.channel(channel).count);
        ASSERT_EQ(at_once.channel(channel).smallest_ps, one_by_one.channel(channel).smallest_ps);
        ASSERT_EQ(at_once.channel(channel).largest_ps, one_by_one.channel(channel).largest_ps);
      }
    }
    turns[place] = tag;
  }
}

TEST(Evaluation, ARecordingThatLostBytesIsNotJudged) {
  const tests::ScratchDirectory scratch;
  const std::string path = scratch.file("recording");
  timing::StreamFileWriter writer;
  writer.open(path, {});
  writer.write(std::array<std::uint8_t, 16>{}.data(), 16);
  writer.close();
  EXPECT_EQ(tests::error_of([&] { static_cast<void>(read_tag_statistics(path, 16, 4)); }),
            "no error");
  EXPECT_EQ(tests::error_of([&] { static_cast<void>(read_tag_statistics(path, 17, 4)); }),
            "StreamFileReader: payload is not as long as recorded [-2]");
}

}  // namespace
}  // namespace orvo::verification
