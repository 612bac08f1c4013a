// What the times of decoded tags show beside their rates: how far each interval of a channel is
// from the expected one, when, and how far the channels fire apart. In memory that does not grow
// with the number of tags.
// Threads: each object belongs to one thread. Times are any: what exceeds 64 bits wraps.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <vector>

#include "orvo/timing/time_tag.h"
#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

/// A value that occurred, or the middle of several that share a bin.
struct Bin {
  double value_ps = 0;
  std::uint64_t count = 0;
  double width_ps = 0;  ///< 0: all are the value
};

/// Sums of values as they are, not as bins have them.
struct Moments {
  std::uint64_t count = 0;
  double mean_ps = 0;
  double squares = 0;  ///< sum of the squares of the distances from the mean

  void add(const Moments& other);
};

struct Spread {
  std::uint64_t count = 0;  ///< with none, the rest is 0
  double mean_ps = 0;
  double median_ps = 0;     ///< at most one of its last digit off, where its bin is wide
  double deviation_ps = 0;  ///< standard deviation
};

/// The median is that of the values less than `limit_ps` away from 0; `bins` ascend.
[[nodiscard]] Spread spread_of(const Moments& moments, std::span<const Bin> bins,
                               double limit_ps = std::numeric_limits<double>::infinity());

/// How often which number of ticks occurs; those from 1,024 on to ten binary digits.
class TickCounts {
 public:
  void add(std::int64_t value_ps, std::uint64_t count);
  [[nodiscard]] bool empty() const noexcept { return below_0_.empty() && others_.empty(); }

  /// What occurred, ascending, and raised by `offset_ps`.
  [[nodiscard]] std::vector<Bin> bins(double offset_ps) const;

  unsigned tick_shift = 0;  ///< a tick is 2^tick_shift ps

 private:
  // By bin: with much jitter nearly every event is counted here.
  std::vector<std::uint64_t> below_0_;
  std::vector<std::uint64_t> others_;
};

/// Counters for the values that occur most, a tick apart.
struct CountWindow {
  static constexpr std::uint64_t kSlots = 128;

  std::uint64_t start_ps = 0;
  std::uint64_t slots = 0;  // none until it is open
  std::array<std::uint64_t, kSlots> counts = {};
};

struct Extreme {
  std::int64_t interval_ps = 0;
  std::int64_t time_ps = 0;  ///< of the event that ends it, give or take a Column
};

/// The intervals of a channel that end in some stretch of time.
struct IntervalSummary {
  std::uint64_t intervals = 0;
  Extreme shortest = {std::numeric_limits<std::int64_t>::max(), 0};
  Extreme longest = {std::numeric_limits<std::int64_t>::min(), 0};
  Moments near = {};  ///< deviations of less than half an expected interval
  std::uint64_t with_overflow = 0;
  std::uint64_t gaps = 0;            ///< intervals of 1.5 expected ones and more
  std::uint64_t missing_events = 0;  ///< that would fill the gaps
  std::uint64_t extra_events = 0;    ///< intervals of half an expected one and less, from 0 on
  std::uint64_t backward_steps = 0;  ///< intervals below 0

  void add(const IntervalSummary& other);
};

/// A stretch of time.
struct Column {
  std::uint64_t tags = 0;
  std::array<IntervalSummary, verification::kChannels> channels;

  void add(const Column& other);
};

/// Columns by their number: [i] begins at i times their width.
using Columns = std::map<std::int64_t, Column>;

/// Columns of 2^by times the width.
[[nodiscard]] Columns coarser(const Columns& columns, unsigned by);

struct IntervalSettings {
  /// Of each channel, greater than 0.
  std::array<double, verification::kChannels> expected_ps = {};
  bool constant_rate = true;    ///< of the source: a long interval has lost events
  unsigned tick_shift = 0;      ///< times are multiples of 2^tick_shift ps, 15 at most
  double largest_plain_ps = 0;  ///< a longer interval takes overflow records
  double longest_ps = 0;        ///< a longer interval, also backward, is left out: it is damage
  std::size_t reference = verification::kChannels;  ///< of the skew; kChannels: there is none
};

class IntervalAnalysis {
 public:
  explicit IntervalAnalysis(const IntervalSettings& settings);

  /// Takes tags in decoding order.
  void add(std::span<const timing::TimeTag> tags);
  /// To be called after the last tag and before what follows.
  void finish();

  [[nodiscard]] const verification::TagStatistics::Channel& tags(std::size_t channel) const {
    return lanes_[channel].tags;
  }
  /// Of each interval from the expected one.
  [[nodiscard]] std::vector<Bin> deviations(std::size_t channel) const {
    const Lane& lane = lanes_[channel];
    return lane.deviations.bins(static_cast<double>(lane.base_ps) - lane.expected_ps);
  }
  /// Of each event from the nearest one of the reference, later ones positive; events without one
  /// within half an expected interval do not count.
  [[nodiscard]] std::vector<Bin> skews(std::size_t channel) const {
    return lanes_[channel].skews.bins(static_cast<double>(lanes_[channel].skew_base_ps));
  }
  [[nodiscard]] const Moments& skew(std::size_t channel) const { return lanes_[channel].skew; }
  /// Those that hold tags, at most 2,048.
  [[nodiscard]] const Columns& columns() const noexcept { return columns_; }
  [[nodiscard]] std::int64_t column_ps() const noexcept { return std::int64_t{1} << column_shift_; }

 private:
  struct Lane {
    verification::TagStatistics::Channel tags;
    std::uint64_t previous_ps = 0;
    std::uint64_t left_ps = 0;  // previous_ps when the last column was left
    double expected_ps = 0;
    std::int64_t half_ps = 0;  // half the expected interval
    CountWindow intervals;     // of the present column
    std::int64_t base_ps = 0;  // an interval as they are
    TickCounts deviations;     // of the intervals from the base
    bool waits = false;
    std::uint64_t waiting_ps = 0;  // an event that waits for a near one of the reference
    CountWindow skew_window;
    std::int64_t skew_base_ps = 0;
    TickCounts skews;  // from their base
    Moments skew;
  };

  static void tally_skew(Lane& lane, std::uint64_t skew_ps, std::uint64_t count);
  void open(CountWindow& window, std::int64_t value_ps, std::int64_t expected_ps,
            std::int64_t half_ps) const;
  void enter_column(std::int64_t time_ps);
  void leave_column();
  void add_unusual(std::size_t channel, std::int64_t time_ps);
  void account(std::size_t channel, std::uint64_t interval_ps, std::uint64_t count,
               std::int64_t time_ps);
  void add_far(Lane& lane, std::uint64_t time_ps, std::uint64_t reference_ps);
  void meet_waiting(std::uint64_t reference_ps);
  /// Counts the skew of an event, if it is near this one of the reference.
  [[nodiscard]] bool pair(Lane& lane, std::uint64_t time_ps, std::uint64_t reference_ps);

  IntervalSettings settings_;
  std::array<Lane, verification::kChannels> lanes_;
  std::uint64_t reference_ps_ = 0;
  bool any_waits_ = false;
  Columns columns_;
  unsigned column_shift_ = 20;  // about a microsecond: no finer than any chart
  Column* column_ = nullptr;    // the present one
  std::uint64_t column_begin_ps_ = 0;
  std::uint64_t column_reach_ps_ = 0;  // from its beginning to its last time
};

}  // namespace orvo::inspection
