// Where values stand on the axes of a chart. Plain values; any thread may call.
#pragma once

#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

#include "orvo/inspection/recording.h"

namespace orvo::inspection {

/// The largest of 1, 2 and 5 times a power of ten that is not above `number`, which is above 0.
inline double round_below(double number) {
  const double decade = std::pow(10, std::floor(std::log10(number) + 1e-9));
  const double factor = number / decade + 1e-9;
  return factor >= 5 ? 5 * decade : factor >= 2 ? 2 * decade : decade;
}

inline double round_above(double number) {
  const double below = round_below(number);
  return number <= below * (1 + 1e-9) ? below : round_below(2.5 * below);
}

/// How far all but one in a hundred values are from `middle_ps`; `bins` ascend.
inline double common_reach_ps(std::span<const Bin> bins, double middle_ps) {
  std::uint64_t total = 0;
  for (const Bin& bin : bins) {
    total += bin.count;
  }
  std::uint64_t spare = total / 100 + 1;
  while (!bins.empty()) {
    const double low_ps = middle_ps - bins.front().value_ps;
    const double high_ps = bins.back().value_ps - middle_ps;
    const std::uint64_t count = (low_ps > high_ps ? bins.front() : bins.back()).count;
    if (count > spare || bins.size() == 1) {
      return std::max(low_ps, high_ps);
    }
    spare -= count;
    bins = low_ps > high_ps ? bins.subspan(1) : bins.first(bins.size() - 1);
  }
  return 0;
}

/// An axis of picoseconds: linear as far as common values go and logarithmic beyond, so that noise
/// and what is a million times larger are on one chart.
class Scale {
 public:
  static constexpr double kHeightPx = 72;

  explicit Scale(const Recording& run) {
    double common_ps = run.tick_ps;  // rounding alone makes deviations of one
    double skew_ps = 0;
    double smallest_ps = 0;
    double largest_ps = 0;
    for (const ChannelRecording& channel : run.channels) {
      common_ps = std::max(common_ps, common_reach_ps(channel.deviations, 0));
      skew_ps = std::max(skew_ps, common_reach_ps(channel.skews, channel.skew.median_ps));
      if (channel.intervals.intervals != 0) {
        smallest_ps = std::min(smallest_ps, channel.smallest_ps());
        largest_ps = std::max(largest_ps, channel.largest_ps());
      }
      if (!channel.skews.empty()) {
        const double median_ps = channel.skew.median_ps;
        smallest_ps = std::min(smallest_ps, channel.skews.front().value_ps - median_ps);
        largest_ps = std::max(largest_ps, channel.skews.back().value_ps - median_ps);
      }
    }
    common_ps = std::max(common_ps, std::min(skew_ps, kSkewReach * common_ps));
    farthest_ps_ = std::max({-smallest_ps, largest_ps, common_ps});
    const bool all_linear = farthest_ps_ <= kLinearReach * common_ps;
    linear_ps_ = all_linear ? farthest_ps_ : round_above(common_ps);
    top_ = std::max(1.0, units(largest_ps));
    bottom_ = std::max(1.0, -units(smallest_ps));
  }

  /// From kRoomPx below the top to kRoomPx above the bottom.
  [[nodiscard]] double y(double value_ps) const {
    const double share = std::clamp((top_ - units(value_ps)) / (top_ + bottom_), 0.0, 1.0);
    return kRoomPx + (kHeightPx - 2 * kRoomPx) * share;
  }
  [[nodiscard]] bool in_tail(double value_ps) const { return std::abs(value_ps) > linear_ps_; }

  /// Round values, a line of text apart: 0 and at least one more, as half of what is linear is more
  /// than a line.
  [[nodiscard]] std::vector<double> ticks() const {
    std::vector<double> ticks = {0};
    const double round_ps = round_below(linear_ps_);
    std::vector<double> wanted = {2 * round_ps <= linear_ps_ ? 2 * round_ps : round_ps};
    double decade_ps = round_below(farthest_ps_);
    while (decade_ps > linear_ps_) {
      wanted.push_back(decade_ps);
      decade_ps /= 10;
    }
    for (const double size_ps : wanted) {
      for (const double tick : {size_ps, -size_ps}) {
        if (units(tick) <= top_ && -units(tick) <= bottom_ &&
            std::none_of(ticks.begin(), ticks.end(),
                         [&](double other) { return std::abs(y(other) - y(tick)) < kTextPx; })) {
          ticks.push_back(tick);
        }
      }
    }
    return ticks;
  }

 private:
  static constexpr double kTextPx = 13;      // a line of text
  static constexpr double kRoomPx = 6;       // for half of what touches an end
  static constexpr double kTail = 0.9;       // height of a logarithmic part; half the linear: 1
  static constexpr double kSkewReach = 2;    // times the deviations': a drift is not to hide them
  static constexpr double kLinearReach = 8;  // what is no farther is not worth a second scale

  [[nodiscard]] double units(double value_ps) const {
    const double magnitude = std::abs(value_ps) / linear_ps_;
    return magnitude <= 1 ? value_ps / linear_ps_
                          : std::copysign(1 + kTail * std::log(magnitude) /
                                                  std::log(farthest_ps_ / linear_ps_),
                                          value_ps);
  }

  double farthest_ps_;
  double linear_ps_;
  double top_;  // in units of the linear part
  double bottom_;
};

}  // namespace orvo::inspection
