// What a recording's times show: intervals, skew, and the time that counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "orvo/inspection/intervals.h"
#include "orvo/inspection/recording.h"
#include "orvo/inspection/report/scale.h"
#include "orvo/inspection/report/text.h"
#include "support/recordings.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

using inspection::Bin;
using inspection::IntervalAnalysis;
using inspection::IntervalSettings;
using inspection::Recording;
using timing::TimeTag;

constexpr double kPeriodPs = 10'000'000;

IntervalSettings settings_of_8_ps() {
  return {.expected_ps = {kPeriodPs, kPeriodPs, kPeriodPs, kPeriodPs},
          .tick_shift = 3,
          .largest_plain_ps = 524'280,
          .longest_ps = 1e12,
          .reference = 0};
}

TEST(Intervals, OneLostEventAmongAMillionIsSeen) {
  IntervalAnalysis analysis(settings_of_8_ps());
  std::vector<TimeTag> tags;
  for (std::int64_t i = 0; i <= 1'000'000; ++i) {
    const std::int64_t time_ps = i * 10'000'000 + i % 3 * 8;
    if (i != 700'001) {
      tags.push_back({1, time_ps});
    }
  }
  for (std::size_t i = 0; i < tags.size(); i += 4'096) {
    analysis.add(std::span(tags).subspan(i, std::min<std::size_t>(4'096, tags.size() - i)));
  }
  analysis.finish();
  EXPECT_EQ(analysis.tags(1).count, 1'000'000U);
  EXPECT_EQ(analysis.tags(1).largest_ps, tags.back().time_ps);
  const inspection::Spread spread = spread_of(analysis.deviations(1), kPeriodPs / 2);
  EXPECT_EQ(spread.count, 999'998U);
  EXPECT_NEAR(spread.mean_ps, 0, 1e-4);  // of +8, +8 and -16 in turn
  EXPECT_EQ(spread.median_ps, 8);
  EXPECT_NEAR(spread.deviation_ps, std::sqrt(128), 1e-4);
  EXPECT_NEAR(analysis.deviations(1).back().value_ps, kPeriodPs, kPeriodPs / 512);

  inspection::IntervalSummary sum;
  std::size_t columns_with_a_gap = 0;
  for (const auto& [index, column] : analysis.columns()) {
    const inspection::IntervalSummary& s = column.channels[1];
    columns_with_a_gap += s.gaps;
    EXPECT_EQ(s.longest.interval_ps > 10'000'100, s.gaps == 1) << index;
    EXPECT_EQ(s.shortest.interval_ps, 9'999'984) << index;
    EXPECT_EQ(s.with_overflow, s.intervals) << index;
    sum.add(s);
  }
  EXPECT_EQ(columns_with_a_gap, 1U);
  EXPECT_EQ(sum.intervals, 999'999U);
  EXPECT_EQ(sum.missing_events, 1U);
  EXPECT_NEAR(sum.squares, kPeriodPs * kPeriodPs, 1e9);
  EXPECT_EQ(sum.backward_steps, 0U);
  EXPECT_EQ(sum.longest.time_ps, 700'002LL * 10'000'000 + 700'002 % 3 * 8);
}

TEST(Intervals, AnyTimesAreCountedOnce) {
  std::mt19937_64 random(1);
  IntervalAnalysis analysis(settings_of_8_ps());
  verification::TagStatistics plain;
  constexpr std::int64_t kEnds[] = {INT64_MIN, INT64_MAX, 0, -1};
  for (int round = 0; round < 40; ++round) {
    std::vector<TimeTag> tags;
    for (int i = 0; i < 1'000; ++i) {
      tags.push_back({static_cast<std::uint8_t>(random() % 4),
                      i < 4 ? kEnds[i] : static_cast<std::int64_t>(random() >> random() % 64)});
    }
    analysis.add(tags);
    plain.add(tags);
  }
  analysis.finish();
  EXPECT_LE(analysis.columns().size(), 2'048U);
  std::uint64_t tags = 0;
  for (const auto& [index, column] : analysis.columns()) {
    tags += column.tags;
  }
  EXPECT_EQ(tags, plain.tags());
  for (std::size_t c = 0; c < 4; ++c) {
    EXPECT_EQ(analysis.tags(c).count, plain.channel(c).count);
    EXPECT_EQ(analysis.tags(c).smallest_ps, plain.channel(c).smallest_ps);
    EXPECT_EQ(analysis.tags(c).largest_ps, plain.channel(c).largest_ps);
  }
}

TEST(Intervals, SkewIsThatOfTheNearestEvent) {
  struct Case {
    const char* name;
    std::int64_t skew_ps;  // of channel 1 against channel 0
    bool channel_0_first;  // in the stream
    unsigned lost_from_0;  // one event in so many, 0 for none
  };
  for (const Case& c :
       {Case{"after", 248, true, 0}, Case{"before", -248, false, 0},
        Case{"before, sent after", -248, true, 0}, Case{"after, sent before", 248, false, 0},
        Case{"far", 3'000'000, true, 0}, Case{"far before", -3'000'000, false, 0},
        Case{"without a partner", 248, true, 10}}) {
    IntervalAnalysis analysis(settings_of_8_ps());
    std::vector<TimeTag> tags;
    std::uint64_t pairs = 0;
    for (int i = 1; i <= 1'000; ++i) {
      const std::int64_t time_ps = i * std::int64_t{10'000'000} + i % 2 * 8;
      const bool lost = c.lost_from_0 != 0 && i % static_cast<int>(c.lost_from_0) == 0;
      pairs += lost ? 0 : 1;
      if (c.channel_0_first && !lost) tags.push_back({0, time_ps});
      tags.push_back({1, time_ps + c.skew_ps});
      if (!c.channel_0_first && !lost) tags.push_back({0, time_ps});
    }
    analysis.add(tags);
    analysis.finish();
    const inspection::Spread skew = spread_of(analysis.skews(1));
    EXPECT_EQ(skew.count, pairs) << c.name;
    EXPECT_EQ(skew.median_ps, static_cast<double>(c.skew_ps)) << c.name;
    EXPECT_NEAR(skew.deviation_ps, 0, 1e-3) << c.name;
    EXPECT_TRUE(analysis.skews(0).empty()) << c.name;
  }
}

TEST(Recordings, WithoutADividerItIsFoundInTheIntervals) {
  const ScratchDirectory scratch;
  PackedWriter writer;
  writer.events(500);
  const std::string file = scratch.file("a.ortime");
  writer.save(file);
  const Recording recording = inspection::read_recording(file, {});
  EXPECT_EQ(recording.divider, PackedWriter::kDivider);
  EXPECT_NEAR(recording.channels[2].expected_ps, PackedWriter::kPeriodPs, 1e-3);
  EXPECT_EQ(recording.reference, 0U);
  for (std::size_t c = 1; c < 4; ++c) {
    EXPECT_EQ(recording.channels[c].skew.median_ps, PackedWriter::skew_ps(c)) << c;
  }
  EXPECT_EQ(inspection::read_recording(file, {.channel_mask = 0b1010}).reference, 1U);
}

TEST(Charts, NoiseAndAFarOutlierAreOnOneScale) {
  Recording recording;
  recording.tick_ps = 8;
  inspection::ChannelRecording& channel = recording.channels[2];
  channel.expected_ps = kPeriodPs;
  channel.deviations = {{-8, 5'000}, {0, 9'000}, {8, 5'000}, {kPeriodPs, 1}};
  channel.intervals.intervals = 19'001;
  channel.intervals.shortest = {9'999'992, 0};
  channel.intervals.longest = {20'000'000, 0};
  const inspection::Scale scale(recording);
  EXPECT_GT(scale.y(-8) - scale.y(8), inspection::Scale::kHeightPx / 3);
  double previous = inspection::Scale::kHeightPx;
  for (const double deviation_ps : {-8.0, 0.0, 8.0, 50.0, 51.0, 1e3, 1e6, 1e7}) {
    EXPECT_LT(scale.y(deviation_ps), previous) << deviation_ps;
    previous = scale.y(deviation_ps);
  }
  EXPECT_GE(previous, 0);
  EXPECT_TRUE(scale.in_tail(1e7));
  EXPECT_FALSE(scale.in_tail(8));
}

TEST(Texts, Numbers) {
  using namespace inspection;
  EXPECT_EQ(grouped(std::int64_t{-1'234'567}), "−1\u202F234\u202F567");
  EXPECT_EQ(signed_text(-0.0000001, 6), "0.000000");
  EXPECT_EQ(signed_text(12.25, 1), "+12.2");
  EXPECT_EQ(fixed_text(std::nan(""), 2), "–");
  EXPECT_EQ(signed_time_text(10'006'015), "+10.01\u00A0µs");
  EXPECT_EQ(time_text(51'230'000'000, 3), "51.2\u00A0ms");
  EXPECT_EQ(time_text(999'960), "1\u00A0µs");
  EXPECT_EQ(hz_text(100'000), "100\u00A0kHz");
  EXPECT_EQ(counted(1, "event"), "1\u00A0event");
}

}  // namespace
}  // namespace orvo::tests
