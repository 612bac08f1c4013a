#include <fmt/chrono.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/output_file.h"
#include "orvo/inspection/report/page.h"
#include "orvo/inspection/run_directory.h"

namespace orvo::inspection {

int run(const ReportOptions& options) {
  unsetenv("ORVO_PACKED_DEBUG");  // the page has the lock history
  RunDirectory dir = load_run(options.path);
  dir.settings = options.given.over(dir.settings);
  std::vector<std::filesystem::path> inputs;
  if (dir.ended()) {
    inputs.push_back(dir.report);
  }
  for (const verification::RunResult& run : dir.runs) {
    inputs.push_back(run.stream_file);
  }
  std::optional<OutputFile> page;
  if (!options.output.empty()) {
    page.emplace(options.output, inputs);
  }
  std::optional<OutputFile> data;
  if (!options.json.empty()) {
    data.emplace(options.json, inputs);
  }

  const Findings findings = look_into(dir, options.chunk_bytes);
  int status = kExitSuccess;
  for (std::size_t i = 0; i < findings.runs.size(); ++i) {
    if (!findings.runs[i].recording) {
      std::cerr << "ortime: run " << i + 1 << ": " << findings.runs[i].problem << '\n';
      status = kExitError;
    }
  }
  const Labels labels = {options.title,
                         fmt::format("{:%Y-%m-%d %H:%M} UTC", fmt::gmtime(std::time(nullptr)))};
  if (page) {
    page->write(page_of(findings, labels));
    page->publish();
  }
  if (data) {
    using Json = nlohmann::ordered_json;
    data->write(data_of(findings, labels).dump(-1, ' ', false, Json::error_handler_t::replace) +
                '\n');
    data->publish();
  }
  return status;
}

}  // namespace orvo::inspection
