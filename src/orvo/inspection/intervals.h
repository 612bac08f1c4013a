// The intervals between one channel's events against the one that is expected: in figures, over
// time, and by how often which deviation occurs. Plain values; each object belongs to one thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace orvo::inspection {

/// From each event of a channel to the next.
class IntervalTracker {
 public:
  /// The time since the event before, modulo 2^64; nothing for the first one.
  [[nodiscard]] std::optional<std::int64_t> step(std::int64_t time_ps);

 private:
  std::optional<std::int64_t> previous_ps_;
};

/// What the intervals of a run are measured with.
struct IntervalScale {
  double expected_ps = 0;       ///< greater than 0
  double quantum_ps = 1;        ///< greater than 0
  double largest_plain_ps = 0;  ///< what is longer takes overflow records; infinite: nothing does
};

struct Extreme {
  double deviation_ps = 0;
  std::int64_t time_ps = 0;  ///< of the event that ends the interval
};

/// What the first of two passes over a recording finds, from which the charts' ranges follow.
class IntervalStatistics {
 public:
  explicit IntervalStatistics(const IntervalScale& scale = {}) : scale_(scale) {}

  void add(std::int64_t interval_ps, std::int64_t time_ps);

  [[nodiscard]] std::uint64_t intervals() const noexcept { return intervals_; }
  [[nodiscard]] const Extreme& smallest() const noexcept { return smallest_; }
  [[nodiscard]] const Extreme& largest() const noexcept { return largest_; }

  /// Intervals of about two expected ones and more, and the events that would fill them.
  [[nodiscard]] std::uint64_t gaps() const noexcept { return gaps_; }
  [[nodiscard]] double missing_events() const noexcept { return missing_events_; }
  /// Intervals below 0.
  [[nodiscard]] std::uint64_t backward_steps() const noexcept { return backward_steps_; }
  /// Intervals that take overflow records.
  [[nodiscard]] std::uint64_t with_overflow() const noexcept { return with_overflow_; }

  /// The smallest power of two, not below 4, of quanta that at least 99 % of the deviations lie
  /// within: a few far ones do not count.
  [[nodiscard]] double common_range_quanta() const;
  /// Whole quanta that all deviations lie within.
  [[nodiscard]] double whole_range_quanta() const;

 private:
  IntervalScale scale_;
  std::uint64_t intervals_ = 0;
  Extreme smallest_;
  Extreme largest_;
  std::uint64_t gaps_ = 0;
  double missing_events_ = 0;
  std::uint64_t backward_steps_ = 0;
  std::uint64_t with_overflow_ = 0;
  /// [k]: deviations below 2^k quanta, none below 2^(k-1).
  std::array<std::uint64_t, 65> octaves_ = {};
};

/// Deviations over time in a fixed number of columns, each with its smallest and largest: one event
/// lost among millions is as visible as one among ten.
class IntervalEnvelope {
 public:
  struct Column {
    std::uint64_t intervals = 0;  ///< with none, the next two mean nothing
    double smallest_ps = 0;
    double largest_ps = 0;
    std::uint64_t with_overflow = 0;
  };

  IntervalEnvelope() = default;
  /// `columns` of the same width, at least one, from `first_ps` to `last_ps`, which is not before
  /// it.
  IntervalEnvelope(std::int64_t first_ps, std::int64_t last_ps, std::size_t columns);

  /// An interval that ends at `time_ps`; a time out of range counts for the nearest column.
  void add(std::int64_t time_ps, double deviation_ps, bool with_overflow);

  [[nodiscard]] std::span<const Column> columns() const noexcept { return columns_; }

 private:
  double first_ps_ = 0;
  double columns_per_ps_ = 0;
  std::vector<Column> columns_;
};

/// How often which deviation occurs, in quanta: bars of the same width around 0, and one at either
/// end for all that lies beyond them.
class IntervalHistogram {
 public:
  static constexpr std::size_t kMaxBars = 61;

  /// At least from -`range_quanta` to `range_quanta`, which is 0 or more, in at most kMaxBars bars.
  explicit IntervalHistogram(double range_quanta = 0);

  void add(double deviation_quanta);

  /// An odd number of bars; the middle one is around 0.
  [[nodiscard]] std::span<const std::uint64_t> bars() const noexcept { return bars_; }
  [[nodiscard]] double bar_quanta() const noexcept { return bar_quanta_; }
  /// Where bar `index` begins and where the last one ends.
  [[nodiscard]] double edge_quanta(std::size_t index) const;
  [[nodiscard]] std::uint64_t below() const noexcept { return below_; }
  [[nodiscard]] std::uint64_t above() const noexcept { return above_; }

 private:
  double bar_quanta_ = 1;
  std::vector<std::uint64_t> bars_;
  std::uint64_t below_ = 0;
  std::uint64_t above_ = 0;
};

}  // namespace orvo::inspection
