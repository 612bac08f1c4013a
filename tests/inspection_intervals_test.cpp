// What the charts of a report are drawn from: intervals, scales and texts.
#include <gtest/gtest.h>

#include <cmath>

#include "orvo/inspection/intervals.h"
#include "orvo/inspection/report/chart_scale.h"
#include "orvo/inspection/report/html_text.h"

namespace orvo::tests {
namespace {

TEST(Intervals, OneLostEventAmongAMillionIsSeen) {
  constexpr std::int64_t kPeriodPs = 10'000'000;
  inspection::IntervalStatistics statistics({kPeriodPs, 8, 524'280});
  inspection::IntervalTracker tracker;
  inspection::IntervalEnvelope envelope(0, 1'000'000 * kPeriodPs, 1'000);
  inspection::IntervalHistogram histogram(4);
  for (std::int64_t i = 0; i <= 1'000'000; ++i) {
    const std::int64_t time_ps = i * kPeriodPs + i % 3 * 8;
    if (i == 700'001) {
      continue;
    }
    if (const auto interval_ps = tracker.step(time_ps)) {
      const auto deviation_ps = static_cast<double>(*interval_ps - kPeriodPs);
      statistics.add(*interval_ps, time_ps);
      envelope.add(time_ps, deviation_ps, true);
      histogram.add(deviation_ps / 8);
    }
  }
  EXPECT_EQ(statistics.intervals(), 999'999U);
  EXPECT_EQ(statistics.gaps(), 1U);
  EXPECT_EQ(statistics.missing_events(), 1);
  EXPECT_EQ(statistics.with_overflow(), 999'999U);
  EXPECT_EQ(statistics.common_range_quanta(), 4);  // however far the one is
  EXPECT_NEAR(statistics.largest().deviation_ps, kPeriodPs, 16);
  EXPECT_EQ(histogram.above(), 1U);
  for (std::size_t i = 0; i < envelope.columns().size(); ++i) {
    const inspection::IntervalEnvelope::Column& column = envelope.columns()[i];
    EXPECT_NEAR(static_cast<double>(column.intervals), 1'000, 1) << i;
    EXPECT_EQ(column.largest_ps > 100, i == 700) << i;
    EXPECT_EQ(column.smallest_ps, -16) << i;
  }
}

TEST(Intervals, HistogramCountsEverythingOnce) {
  for (const double range : {0.0, 4.0, 30.0, 31.0, 1'000.0, 1e12}) {
    inspection::IntervalHistogram histogram(range);
    const auto bars = histogram.bars();
    EXPECT_LE(bars.size(), inspection::IntervalHistogram::kMaxBars);
    for (const double quanta : {-1e19, -range, 0.0, range, 1e19}) {
      histogram.add(quanta);
    }
    std::uint64_t inside = 0;
    for (const std::uint64_t bar : bars) {
      inside += bar;
    }
    EXPECT_EQ(inside, 3U) << range;
    EXPECT_GE(bars[bars.size() / 2], 1U) << range;
    EXPECT_EQ(histogram.below() + histogram.above(), 2U) << range;
  }
}

TEST(Charts, NoiseAndAFarOutlierAreOnOneScale) {
  const inspection::DeviationScale scale(32, -12, 1e7);
  EXPECT_GT(scale.position(-8) - scale.position(8), 0.05);
  double previous = 1.1;
  for (const double deviation_ps : {-32.0, -12.0, 0.0, 12.0, 50.0, 51.0, 1e3, 1e6, 1e7}) {
    EXPECT_LT(scale.position(deviation_ps), previous) << deviation_ps;
    previous = scale.position(deviation_ps);
  }
  EXPECT_GE(previous, 0);
}

TEST(Html, TextsAndNumbers) {
  using namespace inspection;
  EXPECT_EQ(html_escaped("<a href='\"'>&\xFF\n"), "&lt;a href=&#39;&quot;&#39;&gt;&amp;\\xff\\x0a");
  EXPECT_EQ(grouped(std::int64_t{-1'234'567}), "−1\u202F234\u202F567");
  EXPECT_EQ(signed_text(-0.0000001, 6), "0.000000");
  EXPECT_EQ(fixed_text(std::nan(""), 2), "–");
  EXPECT_EQ(signed_time_text(10'006'015), "+10.01\u00A0µs");
  EXPECT_EQ(hz_text(100'000), "100\u00A0kHz");
  EXPECT_EQ(percent_text(999'999, 1'000'000), "above 99.9\u00A0%");
}

}  // namespace
}  // namespace orvo::tests
