#include "orvo/inspection/report/chart_scale.h"

#include <algorithm>
#include <cmath>

namespace orvo::inspection {
namespace {

/// What exceeds the linear part no more than this is not worth a second scale.
constexpr double kLinearReach = 8;

}  // namespace

double round_number_above(double number) {
  if (!(number > 0) || !std::isfinite(number)) {
    return 1;
  }
  const double decade = std::pow(10, std::floor(std::log10(number)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * decade >= number * (1 - 1e-12)) {
      return factor * decade;
    }
  }
  return 10 * decade;
}

std::vector<Tick> ticks_to(double end, int count) {
  std::vector<Tick> ticks = {{0, 0}};
  if (end > 0) {
    const double step = round_number_above(end / count);
    for (int i = 1; step * i <= end * (1 + 1e-9); ++i) {
      ticks.push_back({step * i, step * i / end});
    }
  }
  return ticks;
}

DeviationScale::DeviationScale(double common_ps, double smallest_ps, double largest_ps) {
  const double farthest_ps = std::max(std::abs(smallest_ps), std::abs(largest_ps));
  const bool all_linear = farthest_ps <= kLinearReach * common_ps;
  linear_ps_ = round_number_above(all_linear ? std::max(farthest_ps, common_ps / 2) : common_ps);
  decades_ = std::max(1.0, std::log10(std::max(farthest_ps, linear_ps_) / linear_ps_));
  if (largest_ps > linear_ps_) {
    top_ = units(largest_ps) + kEnd - 1;
  }
  if (smallest_ps < -linear_ps_) {
    bottom_ = units(-smallest_ps) + kEnd - 1;
  }
}

double DeviationScale::units(double deviation_ps) const {
  const double linear = deviation_ps / linear_ps_;
  const double magnitude = std::abs(linear);
  if (magnitude <= 1) {
    return linear;
  }
  return std::copysign(1 + kLogarithmicPart * std::log10(magnitude) / decades_, linear);
}

double DeviationScale::position(double deviation_ps) const {
  return std::clamp((top_ - units(deviation_ps)) / (top_ + bottom_), 0.0, 1.0);
}

std::vector<Tick> DeviationScale::ticks(double distance) const {
  std::vector<Tick> ticks;
  const auto add = [&](double value) {
    const double place = position(value);
    const bool apart = std::all_of(ticks.begin(), ticks.end(), [&](const Tick& tick) {
      return std::abs(tick.position - place) >= distance;
    });
    if (apart && units(value) <= top_ && -units(value) <= bottom_) {
      ticks.push_back({value, place});
    }
  };
  for (const double value : {0.0, linear_ps_, -linear_ps_, linear_ps_ / 2, -linear_ps_ / 2}) {
    add(value);
  }
  const int decades = static_cast<int>(decades_) + 1;
  const int step = (decades + 3) / 4;
  const double first = std::pow(10, std::ceil(std::log10(linear_ps_)));
  for (int decade = decades; decade > 0; --decade) {
    if (decade % step == 0) {
      add(first * std::pow(10, decade));
      add(-first * std::pow(10, decade));
    }
  }
  return ticks;
}

}  // namespace orvo::inspection
