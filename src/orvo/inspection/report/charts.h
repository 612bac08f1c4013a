// The charts of a report, as HTML. No state; any thread may call.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "orvo/inspection/report/report_analysis.h"

namespace orvo::inspection {

/// Rate errors against the tolerance: a row for each run and channel; several charts of the same
/// scale where there are many runs, so that paper can break between them.
[[nodiscard]] std::string rate_error_charts(std::span<const verification::RunResult> runs,
                                            const verification::EvaluationSettings& settings);

/// A channel's deviations from the expected interval: over time, and how often which one occurs.
/// Both need a channel with intervals.
[[nodiscard]] std::string deviation_chart(const RunAnalysis& run, std::size_t channel);
[[nodiscard]] std::string histogram_chart(const RunAnalysis& run, std::size_t channel);

}  // namespace orvo::inspection
