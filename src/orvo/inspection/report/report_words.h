// What a report says in sentences. HTML, with everything of unknown origin escaped.
// No state; any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "orvo/inspection/report/report_analysis.h"
#include "orvo/inspection/run_directory.h"

namespace orvo::inspection {

/// "Run 2 at 10 kHz", linked to its section; runs are counted from 0.
[[nodiscard]] std::string name_of_run(std::size_t index, const verification::RunResult& run);

/// The time from the run's first timestamp on.
[[nodiscard]] std::string time_since_first(std::int64_t time_ps, const RunAnalysis& analysis);

/// Why the run failed, a sentence a channel; none where it passed.
[[nodiscard]] std::vector<std::string> failures_of(
    std::size_t index, const verification::RunResult& run,
    const verification::EvaluationSettings& settings);

/// What the recording shows that the verdict does not say: events missing in it, locks lost, and
/// where it differs from the report.
[[nodiscard]] std::vector<std::string> observations_of(std::size_t index, const RunDirectory& dir,
                                                       const RunAnalysis& analysis);

/// The lock history, at most the entries that a LockHistory keeps.
[[nodiscard]] std::vector<std::string> lock_history_of(const RunAnalysis& analysis);

}  // namespace orvo::inspection
