// The parts of a report in their order. HTML, with everything of unknown origin escaped. No state;
// any thread may call.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "orvo/inspection/report/report_analysis.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/timing/stream_header.h"

namespace orvo::inspection {

/// What the recordings have told.
struct PageFindings {
  std::optional<timing::StreamFileHeader> header;  ///< of the first that has one
  std::vector<std::string> failures;               ///< sentences, in HTML
  std::vector<std::string> observations;
};

/// The document up to and including the verdict.
[[nodiscard]] std::string page_begin(const RunDirectory& dir, const PageFindings& findings);
[[nodiscard]] std::string results_table(const RunDirectory& dir);
/// How to read the charts of the runs.
[[nodiscard]] std::string chart_legend();
/// About one run; runs are counted from 0. `folded` shows the heading until somebody asks for more.
[[nodiscard]] std::string run_section(std::size_t index, const RunDirectory& dir,
                                      const RunAnalysis& analysis, bool folded);
[[nodiscard]] std::string page_end();

}  // namespace orvo::inspection
