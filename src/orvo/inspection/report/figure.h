// The charts of a report, as SVG. They hold numbers and words of this program alone: nothing to
// escape. No state; any thread may call.
#pragma once

#include <cstddef>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "orvo/inspection/recording.h"

namespace orvo::inspection {

/// The figure of a run: its channels as rows above one axis of time, each with histograms of its
/// deviations and of its skew beside it, on the same axis of picoseconds.
struct Figure {
  std::vector<std::string> parts;     ///< SVG, from top to bottom; paper may break between them
  std::vector<std::string> left_out;  ///< sentences about marks that are not drawn
  /// What there is to explain: lost, taken or wrapped for marks of the whole stream, overflow for
  /// the strip of records, far for deviations on a logarithmic scale, dense for columns of many.
  std::set<std::string> kinds;
};

[[nodiscard]] Figure draw_figure(const Recording& recording);

struct RateMark {
  std::size_t channel = 0;
  double ppm = 0;
  const char* state = "good";  ///< its class: good, bad or unjudged
};

/// Rate errors against the tolerance, for a cell of a table; nothing without marks, or for a
/// tolerance of 0 or one without end.
[[nodiscard]] std::string draw_rate_errors(std::span<const RateMark> marks, double tolerance_ppm);

}  // namespace orvo::inspection
