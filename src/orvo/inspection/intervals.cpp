#include "orvo/inspection/intervals.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

namespace orvo::inspection {
namespace {

using verification::kChannels;

constexpr std::size_t kMaxColumns = 2048;
/// An interval of this many expected ones has lost an event rather than jittered.
constexpr double kGapPeriods = 1.5;

// Bins of TickCounts: one a number up to 2 * kSteps, then kSteps for each power of two.
constexpr std::size_t kSteps = 512;
constexpr int kExactBits = 10;
static_assert(1 << kExactBits == 2 * kSteps);

std::size_t bin_of(std::uint64_t ticks) {
  const int shift = std::max(0, static_cast<int>(std::bit_width(ticks)) - kExactBits);
  const std::uint64_t half = (std::uint64_t{1} << shift) / 2;
  return static_cast<std::size_t>(shift) * kSteps +
         static_cast<std::size_t>((ticks + half) >> shift);
}

/// What is in a bin, and its width.
std::pair<double, double> ticks_of(std::size_t bin) {
  if (bin < 2 * kSteps) {
    return {static_cast<double>(bin), 0};
  }
  const double width = std::ldexp(1.0, static_cast<int>(bin / kSteps) - 1);
  return {static_cast<double>(bin % kSteps + kSteps) * width, width};
}

bool count_in(CountWindow& window, std::uint64_t value_ps, unsigned tick_shift) {
  const std::uint64_t slot = (value_ps - window.start_ps) >> tick_shift;
  if (slot >= window.slots) {
    return false;
  }
  ++window.counts[slot];
  return true;
}

/// Hands each value that occurred and its count to `take`, and forgets them.
template <typename Take>
void empty(CountWindow& window, unsigned tick_shift, const Take& take) {
  for (std::uint64_t slot = 0; slot < window.slots; ++slot) {
    if (const std::uint64_t count = std::exchange(window.counts[slot], 0); count != 0) {
      take(window.start_ps + (slot << tick_shift), count);
    }
  }
}

}  // namespace

// Differences from the mean keep their digits, however large what is summed.
void Moments::add(const Moments& other) {
  if (other.count == 0) {
    return;
  }
  const double share = static_cast<double>(other.count) / static_cast<double>(count + other.count);
  const double apart_ps = other.mean_ps - mean_ps;
  squares += other.squares + apart_ps * apart_ps * share * static_cast<double>(count);
  mean_ps += apart_ps * share;
  count += other.count;
}

Spread spread_of(const Moments& moments, std::span<const Bin> bins, double limit_ps) {
  std::uint64_t count = 0;
  std::vector<Bin> inside;
  for (const Bin& bin : bins) {
    if (std::abs(bin.value_ps) < limit_ps) {
      inside.push_back(bin);
      count += bin.count;
    }
  }
  if (moments.count == 0 || count == 0) {
    return {};
  }
  Spread spread = {moments.count, moments.mean_ps, 0,
                   std::sqrt(moments.squares / static_cast<double>(moments.count))};
  double width_ps = 0;
  // The mean of the two in the middle, which are one of an odd number.
  for (const std::uint64_t skipped : {(count - 1) / 2, count / 2}) {
    std::uint64_t passed = 0;
    const auto middle = std::find_if(inside.begin(), inside.end(), [&](const Bin& bin) {
      return (passed += bin.count) > skipped;
    });
    spread.median_ps += middle->value_ps / 2;
    width_ps = std::max(width_ps, middle->width_ps);
  }
  if (width_ps > 0) {
    const double unit_ps = std::pow(10, std::ceil(std::log10(width_ps)));
    spread.median_ps = std::round(spread.median_ps / unit_ps) * unit_ps + 0.0;  // no -0
  }
  return spread;
}

void TickCounts::add(std::int64_t value_ps, std::uint64_t count) {
  const std::int64_t ticks = value_ps >> tick_shift;
  const auto bits = static_cast<std::uint64_t>(ticks);
  std::vector<std::uint64_t>& counts = ticks < 0 ? below_0_ : others_;
  const std::size_t bin = bin_of(ticks < 0 ? 0 - bits : bits);
  counts.resize(std::max(counts.size(), bin + 1));
  counts[bin] += count;
}

std::vector<Bin> TickCounts::bins(double offset_ps) const {
  const double tick_ps = std::ldexp(1.0, static_cast<int>(tick_shift));
  std::vector<Bin> bins;
  const auto take = [&](double sign_ps, std::size_t bin, std::uint64_t count) {
    if (count != 0) {
      const auto [ticks, width] = ticks_of(bin);
      bins.push_back({offset_ps + sign_ps * ticks, count, tick_ps * width});
    }
  };
  for (std::size_t bin = below_0_.size(); bin-- > 0;) {
    take(-tick_ps, bin, below_0_[bin]);
  }
  for (std::size_t bin = 0; bin < others_.size(); ++bin) {
    take(tick_ps, bin, others_[bin]);
  }
  return bins;
}

void IntervalSummary::add(const IntervalSummary& other) {
  intervals += other.intervals;
  shortest = other.shortest.interval_ps < shortest.interval_ps ? other.shortest : shortest;
  longest = other.longest.interval_ps > longest.interval_ps ? other.longest : longest;
  near.add(other.near);
  with_overflow += other.with_overflow;
  gaps += other.gaps;
  missing_events += other.missing_events;
  extra_events += other.extra_events;
  backward_steps += other.backward_steps;
}

void Column::add(const Column& other) {
  tags += other.tags;
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    channels[channel].add(other.channels[channel]);
  }
}

Columns coarser(const Columns& columns, unsigned by) {
  Columns result;
  for (const auto& [index, column] : columns) {
    result.try_emplace(result.end(), index >> by)->second.add(column);
  }
  return result;
}

IntervalAnalysis::IntervalAnalysis(const IntervalSettings& settings) : settings_(settings) {
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    Lane& lane = lanes_[channel];
    lane.expected_ps = std::clamp(settings.expected_ps[channel], 1.0, 1e18);
    lane.half_ps = static_cast<std::int64_t>(lane.expected_ps / 2);
    lane.deviations.tick_shift = lane.skews.tick_shift = settings.tick_shift;
  }
}

/// Around `value_ps`, where all of the window is less than `half_ps` away from the value to expect.
void IntervalAnalysis::open(CountWindow& window, std::int64_t value_ps, std::int64_t expected_ps,
                            std::int64_t half_ps) const {
  const auto reach_ps = static_cast<std::int64_t>(CountWindow::kSlots / 2 << settings_.tick_shift);
  if (window.slots == 0 && std::abs(value_ps - expected_ps) + reach_ps < half_ps) {
    window.start_ps = static_cast<std::uint64_t>(value_ps - reach_ps);
    window.slots = CountWindow::kSlots;
  }
}

void IntervalAnalysis::add(std::span<const timing::TimeTag> tags) {
  if (column_ == nullptr && !tags.empty()) {
    enter_column(tags.front().time_ps);
  }
  const unsigned tick_shift = settings_.tick_shift;
  const std::size_t reference = settings_.reference;
  std::uint64_t reference_ps = reference_ps_;
  // Looked up, where multiplying would take longer.
  Lane* const lanes[kChannels] = {&lanes_[0], &lanes_[1], &lanes_[2], &lanes_[3]};
  for (const timing::TimeTag& tag : tags) {
    const std::size_t channel = tag.channel % kChannels;
    Lane* const lane = lanes[channel];
    const auto time_ps = static_cast<std::uint64_t>(tag.time_ps);
    if (time_ps - column_begin_ps_ > column_reach_ps_) {
      enter_column(tag.time_ps);
    }
    if (!count_in(lane->intervals, time_ps - lane->previous_ps, tick_shift)) {
      add_unusual(channel, tag.time_ps);
    }
    lane->previous_ps = time_ps;
    if (channel == reference) {
      reference_ps = time_ps;
      if (any_waits_) {
        meet_waiting(time_ps);
      }
    } else if (!count_in(lane->skew_window, time_ps - reference_ps, tick_shift)) {
      add_far(*lane, time_ps, reference_ps);
    }
  }
  reference_ps_ = reference_ps;
}

/// An event whose skew is not one of those that occur most, or that waits for its partner.
void IntervalAnalysis::add_far(Lane& lane, std::uint64_t time_ps, std::uint64_t reference_ps) {
  if (settings_.reference < kChannels &&
      !(lanes_[settings_.reference].tags.count != 0 && pair(lane, time_ps, reference_ps))) {
    lane.waiting_ps = time_ps;
    any_waits_ = lane.waits = true;
  }
}

void IntervalAnalysis::finish() {
  if (column_ != nullptr) {
    leave_column();
  }
  for (Lane& lane : lanes_) {
    empty(lane.skew_window, settings_.tick_shift,
          [&](std::uint64_t skew_ps, std::uint64_t times) { tally_skew(lane, skew_ps, times); });
  }
}

void IntervalAnalysis::tally_skew(Lane& lane, std::uint64_t skew_ps, std::uint64_t count) {
  const auto skew = static_cast<std::int64_t>(skew_ps);
  lane.skews.add(skew - lane.skew_base_ps, count);
  lane.skew.add({count, static_cast<double>(skew)});
}

void IntervalAnalysis::enter_column(std::int64_t time_ps) {
  if (column_ != nullptr) {
    leave_column();
  }
  columns_.try_emplace(time_ps >> column_shift_);
  while (columns_.size() > kMaxColumns) {
    columns_ = coarser(columns_, 1);
    ++column_shift_;
  }
  column_ = &columns_.at(time_ps >> column_shift_);
  column_begin_ps_ = static_cast<std::uint64_t>(time_ps >> column_shift_ << column_shift_);
  column_reach_ps_ = static_cast<std::uint64_t>(column_ps() - 1);
}

void IntervalAnalysis::leave_column() {
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    Lane& lane = lanes_[channel];
    const auto last_ps = static_cast<std::int64_t>(lane.previous_ps);
    if (std::exchange(lane.left_ps, lane.previous_ps) == lane.previous_ps) {
      continue;  // no event in it, or the same time again, which is unusual
    }
    empty(lane.intervals, settings_.tick_shift,
          [&](std::uint64_t interval_ps, std::uint64_t count) {
            account(channel, interval_ps, count, last_ps);
            lane.tags.count += count;
            lane.tags.largest_ps = std::max(lane.tags.largest_ps, last_ps);
            column_->tags += count;
          });
  }
}

void IntervalAnalysis::add_unusual(std::size_t channel, std::int64_t time_ps) {
  Lane& lane = lanes_[channel];
  if (lane.tags.count != 0) {
    const std::uint64_t interval_ps = static_cast<std::uint64_t>(time_ps) - lane.previous_ps;
    const auto interval = static_cast<std::int64_t>(interval_ps);
    const bool regular = interval > lane.half_ps && interval - lane.half_ps < 2 * lane.half_ps;
    if (lane.tags.count == 1) {
      lane.base_ps =
          regular ? interval : 2 * lane.half_ps >> settings_.tick_shift << settings_.tick_shift;
    }
    if (regular) {  // above 0 alone: the last time in the window is the latest
      open(lane.intervals, interval, 2 * lane.half_ps, lane.half_ps);
    }
    lane.tags.largest_ps =
        std::max(lane.tags.largest_ps, static_cast<std::int64_t>(lane.previous_ps));
    account(channel, interval_ps, 1, time_ps);
  }
  lane.tags.smallest_ps = std::min(lane.tags.smallest_ps, time_ps);
  lane.tags.largest_ps = std::max(lane.tags.largest_ps, time_ps);
  ++lane.tags.count;
  ++column_->tags;
}

void IntervalAnalysis::account(std::size_t channel, std::uint64_t interval_ps, std::uint64_t count,
                               std::int64_t time_ps) {
  Lane& lane = lanes_[channel];
  const Extreme extreme = {static_cast<std::int64_t>(interval_ps), time_ps};
  const auto interval = static_cast<double>(extreme.interval_ps);
  if (std::abs(interval) > settings_.longest_ps) {
    return;
  }
  const std::uint64_t difference_ps = interval_ps - static_cast<std::uint64_t>(lane.base_ps);
  lane.deviations.add(static_cast<std::int64_t>(difference_ps), count);
  const double deviation_ps = interval - lane.expected_ps;
  IntervalSummary summary = {.intervals = count, .shortest = extreme, .longest = extreme};
  if (std::abs(deviation_ps) < lane.expected_ps / 2) {
    summary.near = {count, deviation_ps};
  }
  summary.with_overflow = interval > settings_.largest_plain_ps ? count : 0;
  summary.backward_steps = interval < 0 ? count : 0;
  if (settings_.constant_rate && interval >= 0 && 2 * interval <= lane.expected_ps) {
    summary.extra_events = count;
  }
  if (settings_.constant_rate && interval >= kGapPeriods * lane.expected_ps) {
    const double missing = std::round(interval / lane.expected_ps) - 1;
    summary.gaps = count;
    summary.missing_events = static_cast<std::uint64_t>(missing) * count;
  }
  column_->channels[channel].add(summary);
}

void IntervalAnalysis::meet_waiting(std::uint64_t reference_ps) {
  any_waits_ = false;
  for (Lane& lane : lanes_) {
    if (std::exchange(lane.waits, false)) {
      (void)pair(lane, lane.waiting_ps, reference_ps);
    }
  }
}

bool IntervalAnalysis::pair(Lane& lane, std::uint64_t time_ps, std::uint64_t reference_ps) {
  const auto skew_ps = static_cast<std::int64_t>(time_ps - reference_ps);
  if (skew_ps >= lane.half_ps || skew_ps <= -lane.half_ps) {
    return false;
  }
  if (lane.skew_window.slots == 0 && lane.skews.empty()) {  // the first one
    lane.skew_base_ps = skew_ps;
    open(lane.skew_window, skew_ps, 0, lane.half_ps);
  }
  if (!count_in(lane.skew_window, static_cast<std::uint64_t>(skew_ps), settings_.tick_shift)) {
    tally_skew(lane, static_cast<std::uint64_t>(skew_ps), 1);
  }
  return true;
}

}  // namespace orvo::inspection
