#include <iostream>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/document.h"

namespace orvo::inspection {

int run(const InfoOptions& options) {
  int status = kExitSuccess;
  Json recordings = Json::array();
  const RecordingOptions look = {.chunk_bytes = options.chunk_bytes};
  const auto show = [&](const verification::RunResult& run, Facts& facts) {
    const RecordingFacts& found = look_into(run, look, facts);
    say(found.recording ? found.recording->warning : "");
    say(found.error);
    status = found.error.empty() ? status : kExitError;
    Json recording = json_of(found, facts, Depth::intervals);
    for (const char* const of_verify : {"reported", "differences"}) {
      recording.erase(of_verify);
    }
    if (options.json) {
      recordings.push_back(std::move(recording));
    } else if (found.recording) {
      std::cout << lines_of(recording) << std::flush;
    }
    facts.recordings.clear();
  };
  for (const std::filesystem::path& path : options.paths) {
    RunDirectory dir;
    if (names_run(path)) {
      dir = opened(path);
    } else {
      dir.runs.emplace_back().stream_file = path;
    }
    Facts facts = facts_about(dir, {});
    for (const verification::RunResult& run : dir.runs) {
      show(run, facts);
    }
  }
  if (options.json) {
    Json document = head_of({});
    document["recordings"] = std::move(recordings);
    std::cout << text_of(document, 2);
  }
  return status;
}

}  // namespace orvo::inspection
