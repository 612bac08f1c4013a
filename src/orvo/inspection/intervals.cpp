#include "orvo/inspection/intervals.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

namespace orvo::inspection {
namespace {

/// An interval of this many expected ones has lost an event rather than jittered.
constexpr double kGapPeriods = 1.5;
constexpr std::size_t kSmallestOctave = 2;  // 4 quanta: rounding alone makes deviations of 1 or 2
constexpr double kCommonShare = 0.99;
constexpr double kMostQuanta = 1e19;  // fits in 64 bits

}  // namespace

std::optional<std::int64_t> IntervalTracker::step(std::int64_t time_ps) {
  const std::optional<std::int64_t> previous_ps = std::exchange(previous_ps_, time_ps);
  if (!previous_ps) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time_ps) -
                                   static_cast<std::uint64_t>(*previous_ps));
}

void IntervalStatistics::add(std::int64_t interval_ps, std::int64_t time_ps) {
  const auto interval = static_cast<double>(interval_ps);
  const Extreme extreme{interval - scale_.expected_ps, time_ps};
  if (intervals_ == 0 || extreme.deviation_ps < smallest_.deviation_ps) {
    smallest_ = extreme;
  }
  if (intervals_ == 0 || extreme.deviation_ps > largest_.deviation_ps) {
    largest_ = extreme;
  }
  ++intervals_;
  if (interval >= kGapPeriods * scale_.expected_ps) {
    ++gaps_;
    missing_events_ += std::round(interval / scale_.expected_ps) - 1;
  }
  backward_steps_ += interval < 0 ? 1 : 0;
  with_overflow_ += interval > scale_.largest_plain_ps ? 1 : 0;
  const double quanta = std::abs(extreme.deviation_ps) / scale_.quantum_ps;
  ++octaves_[std::bit_width(static_cast<std::uint64_t>(std::min(quanta, kMostQuanta)))];
}

double IntervalStatistics::common_range_quanta() const {
  const auto wanted = static_cast<std::uint64_t>(kCommonShare * static_cast<double>(intervals_));
  std::uint64_t within = 0;
  std::size_t octave = 0;
  for (; octave + 1 < octaves_.size(); ++octave) {
    within += octaves_[octave];
    if (within >= wanted && octave >= kSmallestOctave) {
      break;
    }
  }
  return std::ldexp(1.0, static_cast<int>(octave));
}

double IntervalStatistics::whole_range_quanta() const {
  return std::ceil(std::max(std::abs(smallest_.deviation_ps), std::abs(largest_.deviation_ps)) /
                   scale_.quantum_ps);
}

IntervalEnvelope::IntervalEnvelope(std::int64_t first_ps, std::int64_t last_ps, std::size_t columns)
    : first_ps_(static_cast<double>(first_ps)), columns_(columns) {
  const double span_ps = static_cast<double>(last_ps) - first_ps_;
  columns_per_ps_ = span_ps > 0 ? static_cast<double>(columns) / span_ps : 0;
}

void IntervalEnvelope::add(std::int64_t time_ps, double deviation_ps, bool with_overflow) {
  const double place = (static_cast<double>(time_ps) - first_ps_) * columns_per_ps_;
  const double last = static_cast<double>(columns_.size() - 1);
  Column& column = columns_[static_cast<std::size_t>(std::clamp(place, 0.0, last))];
  const bool first = column.intervals++ == 0;
  column.smallest_ps = first ? deviation_ps : std::min(column.smallest_ps, deviation_ps);
  column.largest_ps = first ? deviation_ps : std::max(column.largest_ps, deviation_ps);
  column.with_overflow += with_overflow ? 1 : 0;
}

IntervalHistogram::IntervalHistogram(double range_quanta) {
  // Whole quanta, so that no bar holds more of the possible values than its neighbour; odd ones,
  // so that 0 is in the middle.
  bar_quanta_ = std::ceil((2 * range_quanta + 1) / static_cast<double>(kMaxBars));
  bar_quanta_ += std::fmod(bar_quanta_, 2) == 0 ? 1 : 0;
  const double each_side = std::ceil((range_quanta + 0.5) / bar_quanta_ - 0.5);
  bars_.resize(2 * static_cast<std::size_t>(each_side) + 1);
}

double IntervalHistogram::edge_quanta(std::size_t index) const {
  return (static_cast<double>(index) - static_cast<double>(bars_.size()) / 2) * bar_quanta_;
}

void IntervalHistogram::add(double deviation_quanta) {
  const double bar = std::floor((deviation_quanta - edge_quanta(0)) / bar_quanta_);
  if (bar < 0) {
    ++below_;
  } else if (bar >= static_cast<double>(bars_.size())) {
    ++above_;
  } else {
    ++bars_[static_cast<std::size_t>(bar)];
  }
}

}  // namespace orvo::inspection
