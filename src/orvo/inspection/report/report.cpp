#include "orvo/inspection/report/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "orvo/inspection/exit_status.h"
#include "orvo/inspection/output_file.h"
#include "orvo/inspection/report/charts.h"
#include "orvo/inspection/report/report_analysis.h"
#include "orvo/inspection/report/report_page.h"
#include "orvo/inspection/report/report_words.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

/// Columns of a chart: as many as a screen has, fewer where many runs would make the page heavy.
constexpr std::size_t kMaxColumns = 1'000;
constexpr std::size_t kMinColumns = 100;
constexpr std::size_t kColumnsOfPage = 240'000;
/// From here on runs that passed are shown by their headings alone.
constexpr std::size_t kUnfoldedRuns = 12;

std::size_t columns_for(std::size_t runs) {
  const std::size_t charts = std::max<std::size_t>(runs, 1) * verification::kChannels;
  return std::clamp(kColumnsOfPage / charts, kMinColumns, kMaxColumns);
}

void append(std::vector<std::string>& all, const std::vector<std::string>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

/// The sections of all runs; what is found in them goes into `findings`.
std::string run_sections(const RunDirectory& dir, std::uint64_t chunk_bytes,
                         PageFindings& findings) {
  std::string html;
  for (std::size_t i = 0; i < dir.runs.size(); ++i) {
    const verification::RunResult& run = dir.runs[i];
    const RunAnalysis analysis =
        analyse_run(run, dir.settings, chunk_bytes, columns_for(dir.runs.size()));
    if (!analysis.problem.empty()) {
      std::cerr << "ortime: run " << i + 1 << " without charts: " << analysis.problem << '\n';
    }
    if (!findings.header) {
      findings.header = analysis.header;
    }
    append(findings.failures, failures_of(i, run, dir.settings));
    append(findings.observations, observations_of(i, dir, analysis));
    html += run_section(i, dir, analysis, run.pass && dir.runs.size() > kUnfoldedRuns);
  }
  return html;
}

}  // namespace

int report(const ReportOptions& options) {
  unsetenv("ORVO_PACKED_DEBUG");  // the page has the lock history, and each file is decoded twice
  const RunDirectory dir = load_run(options.path);
  if (!dir.ended()) {
    throw timing::Error(OT_ERR_NOT_FOUND,
                        fmt::format("{:?} has no report, because an error ended the run: look at "
                                    "its recordings with 'ortime info'",
                                    dir.path.string()));
  }
  std::vector<std::filesystem::path> inputs = {dir.report};
  for (const verification::RunResult& run : dir.runs) {
    inputs.push_back(run.stream_file);
  }
  OutputFile output(options.output, inputs);
  PageFindings findings;
  const std::string sections = run_sections(dir, options.chunk_bytes, findings);
  for (const std::string& part : {page_begin(dir, findings), results_table(dir),
                                  "<section>\n<h2>Rate errors and tolerance</h2>\n" +
                                      rate_error_charts(dir.runs, dir.settings) + "</section>\n",
                                  chart_legend(), sections, page_end()}) {
    output.write(part);
  }
  output.publish();
  return kExitSuccess;
}

}  // namespace orvo::inspection
