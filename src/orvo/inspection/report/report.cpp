#include <fmt/chrono.h>

#include <cstdlib>
#include <ctime>
#include <optional>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/output_file.h"
#include "orvo/inspection/report/page.h"

namespace orvo::inspection {
namespace {

std::vector<std::filesystem::path> inputs_of(const RunDirectory& dir) {
  std::vector<std::filesystem::path> inputs = {dir.report};
  for (const verification::RunResult& run : dir.runs) {
    inputs.push_back(run.stream_file);
  }
  return inputs;
}

}  // namespace

int run(const ReportOptions& options) {
  unsetenv("ORVO_PACKED_DEBUG");  // the page has the lock history
  RunDirectory dir = opened(options.path);
  if (dir.path.empty()) {
    dir = load_run(options.path);  // which says what is wrong
  }
  Facts facts = facts_about(std::move(dir), options.given);
  const std::vector<std::filesystem::path> inputs = inputs_of(facts.dir);
  std::optional<OutputFile> page;
  if (!options.output.empty()) {
    page.emplace(options.output, inputs);
  }
  std::optional<OutputFile> data;
  if (!options.json.empty()) {
    data.emplace(options.json, inputs);
  }

  int status = kExitSuccess;
  Json document = document_of(facts);
  document.update(
      {{"title", options.title},
       {"made", fmt::format("{:%Y-%m-%d %H:%M} UTC", fmt::gmtime(std::time(nullptr)))}});
  Json recordings = Json::array();
  std::vector<Figure> figures;
  std::vector<Json> series;
  const RecordingOptions look = {.chunk_bytes = options.chunk_bytes,
                                 .columns = facts.dir.runs.size() > kManyRuns ? 300U : 1000U};
  for (const verification::RunResult& run : facts.dir.runs) {
    RecordingFacts& found = look_into(run, look, facts);
    const bool drawn = found.judged && found.recording->has_intervals();
    recordings.push_back(json_of(found, facts, look.depth));
    figures.push_back(drawn && page ? draw_figure(*found.recording) : Figure());
    series.push_back(data ? series_json(found) : Json());
    if (found.recording) {
      found.recording->forget_series();  // of many runs much
    }
    say(found.recording ? found.recording->warning : "");
    if (!found.error.empty()) {
      say(fmt::format("run {}: {}", recordings.size(), found.error));
      status = kExitError;
    }
  }
  const Summary summary = summary_of(facts);
  document.update({{"settings", settings_json(facts)},
                   {"verdict", json_of(summary, facts)},
                   {"recordings", std::move(recordings)}});
  if (page) {
    page->write(page_of(document, facts, summary, figures));
    page->publish();
  }
  if (data) {
    for (std::size_t i = 0; i < series.size(); ++i) {
      document["recordings"][i]["series"] = std::move(series[i]);
    }
    data->write(text_of(document));
    data->publish();
  }
  return status;
}

}  // namespace orvo::inspection
