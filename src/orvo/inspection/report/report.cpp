#include <fmt/chrono.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <utility>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/output_file.h"
#include "orvo/inspection/report/page.h"

namespace orvo::inspection {
namespace {

/// The output, where one is wanted; it is to be none of the files that were read.
void open(const std::filesystem::path& path, const RunDirectory& dir,
          std::optional<OutputFile>& output) {
  std::vector<std::filesystem::path> inputs = {dir.report};
  for (const verification::RunResult& run : dir.runs) {
    inputs.push_back(run.stream_file);
  }
  if (!path.empty()) {
    output.emplace(path, inputs);
  }
}

}  // namespace

int run(const ReportOptions& options) {
  unsetenv("ORVO_PACKED_DEBUG");  // the page has the lock history
  Facts facts = facts_about(opened(options.path), options.given);
  std::optional<OutputFile> page, data;
  open(options.output, facts.dir, page);
  open(options.json, facts.dir, data);
  int status = kExitSuccess;
  std::vector<Figure> figures;
  const RecordingOptions look = {.chunk_bytes = options.chunk_bytes,
                                 .columns = facts.dir.runs.size() > kManyRuns ? 300U : 1000U};
  Json document = document_of(facts, facts.dir.runs, look, [&](RecordingFacts& found, Json& part) {
    const bool drawn = page && found.judged && found.recording->has_intervals();
    figures.push_back(drawn ? draw_figure(*found.recording) : Figure());
    if (data) {
      part["series"] = series_json(found);
    }
    if (found.recording) {
      found.recording->forget_series();  // of many runs much
    }
    say(found.recording ? found.recording->warning : "");
    if (!found.error.empty()) {
      say(fmt::format("run {}: {}", facts.recordings.size(), found.error));
      status = kExitError;
    }
  });
  document["title"] = options.title;
  document["made"] = fmt::format("{:%Y-%m-%d %H:%M} UTC", fmt::gmtime(std::time(nullptr)));
  if (data) {
    data->write(text_of(document));
  }
  if (page) {
    page->write(page_of(std::move(document), facts, figures));
    page->publish();
  }
  if (data) {
    data->publish();
  }
  return status;
}

}  // namespace orvo::inspection
