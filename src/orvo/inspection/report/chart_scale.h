// Where values stand on a chart's axes. Plain values and functions without state.
#pragma once

#include <vector>

namespace orvo::inspection {

/// The smallest of 1, 2 and 5 times a power of ten that is not below `number`; 1 for what is not
/// above 0.
[[nodiscard]] double round_number_above(double number);

struct Tick {
  double value = 0;
  double position = 0;  ///< 0 to 1
};

/// At most `count` round values from 0 to `end`, positions from left to right.
[[nodiscard]] std::vector<Tick> ticks_to(double end, int count);

/// An axis of deviations: linear around 0, so that the noise of most intervals is seen, and
/// logarithmic beyond, so that what is a million times larger is on the same chart.
class DeviationScale {
 public:
  /// From `smallest_ps` to `largest_ps`, linear from -`common_ps` to `common_ps` at least.
  DeviationScale(double common_ps, double smallest_ps, double largest_ps);

  /// 0 at the top, 1 at the bottom.
  [[nodiscard]] double position(double deviation_ps) const;
  [[nodiscard]] double linear_ps() const noexcept { return linear_ps_; }
  [[nodiscard]] bool logarithmic_above() const noexcept { return top_ > kEnd; }
  [[nodiscard]] bool logarithmic_below() const noexcept { return bottom_ > kEnd; }
  /// Not nearer to each other than `distance`.
  [[nodiscard]] std::vector<Tick> ticks(double distance) const;

 private:
  static constexpr double kEnd = 1.1;  // of the linear part, with room for what touches it
  static constexpr double kLogarithmicPart = 1.4;

  [[nodiscard]] double units(double deviation_ps) const;

  double linear_ps_;
  double decades_;     // of the larger logarithmic part
  double top_ = kEnd;  // in units of the linear part
  double bottom_ = kEnd;
};

}  // namespace orvo::inspection
