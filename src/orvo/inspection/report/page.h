// The facts about a run as a page for people. No state; any thread may call.
#pragma once

#include <string>
#include <vector>

#include "orvo/inspection/document.h"
#include "orvo/inspection/report/figure.h"

namespace orvo::inspection {

/// From here on a page has less of each run, so that it is read and small enough to be mailed:
/// fewer columns in a chart, and one row in the table for a run that passed.
inline constexpr std::size_t kManyRuns = 12;

/// report.html filled with a whole document: one self-contained file. Strings of unknown origin are
/// text in it. `figures` has one for each recording, empty where there is nothing to draw.
[[nodiscard]] std::string page_of(Json document, const Facts& facts,
                                  const std::vector<Figure>& figures);

}  // namespace orvo::inspection
