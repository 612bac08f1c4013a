#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/document.h"
#include "orvo/inspection/text.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

/// The divider that was given, or the one whose frequency is nearest to the one asked for; 0 for a
/// file that is not there.
std::uint32_t divider_of(const VerifyOptions& options) {
  if (!options.requested_hz) {
    return options.divider.value_or(0);
  }
  constexpr double kBaseHz = verification::kCalibrationBaseHz;
  constexpr double kLargest = std::numeric_limits<std::uint32_t>::max();
  const double hz = *options.requested_hz;
  const double below = std::clamp(std::floor(kBaseHz / hz), 1.0, kLargest - 1);
  return static_cast<std::uint32_t>(hz - kBaseHz / (below + 1) < kBaseHz / below - hz ? below + 1
                                                                                      : below);
}

/// To standard error: what else is to be known of a run's verdict.
void explain(const RecordingFacts& run, std::size_t number) {
  say(run.recording ? run.recording->warning : "");
  if (!run.error.empty()) {
    say(fmt::format("run {}: {}", number, run.error));
  }
  for (const Finding& finding : run.findings) {
    if (finding.kind == Finding::Kind::damage || finding.kind == Finding::Kind::no_lock ||
        finding.kind == Finding::Kind::uncompared || finding.kind == Finding::Kind::coverage) {
      say(plain_text(fmt::format("run {}: {}", number, finding.line())));
    }
  }
  for (const Difference& difference : run.differences) {
    say(fmt::format("run {}: {}", number, difference.text()));
  }
}

void print(const Json& recording) {
  Json run = recording["judged"];
  const Json channels = run["channels"];
  run.erase("channels");
  std::cout << "run" << line_of(run)
            << "\n  stream_file=" << digits_of("stream_file", recording["stream_file"]) << '\n';
  for (Json channel : channels) {
    std::cout << "  ch" << channel["channel"];
    channel.erase("channel");
    std::cout << line_of(channel) << '\n';
  }
  std::cout.flush();
}

int finish(const Facts& facts) {
  const Summary& summary = facts.summary;
  if (summary.verdicts_differ) {
    say(verdict_difference(facts.dir.pass).text());
  }
  if (summary.disagreements != 0) {
    std::vector<Difference> all;
    if (summary.verdicts_differ) {
      all.push_back(verdict_difference(facts.dir.pass));
    }
    for (const RecordingFacts& run : facts.recordings) {
      all.insert(all.end(), run.differences.begin(), run.differences.end());
    }
    say(plain_text(
        fmt::format("recordings and report disagree in {}: was one of them changed, or made with "
                    "another {}?",
                    counted(summary.disagreements, "number"), options_behind(all))));
  }
  return summary.unjudged != 0        ? kExitError
         : summary.disagreements != 0 ? kExitDisagreement
         : summary.pass               ? kExitSuccess
                                      : kExitVerificationFailed;
}

/// The runs to judge: of a report, or a stream file's.
std::vector<verification::RunResult> runs_of(const Facts& facts, const VerifyOptions& options) {
  if (!names_run(options.path)) {
    verification::RunResult run;
    run.requested_hz = options.requested_hz.value_or(0);
    run.divider = divider_of(options);
    run.stream_file = options.path;
    return {run};
  }
  if (!facts.ended()) {
    throw timing::Error(OT_ERR_NOT_FOUND,
                        fmt::format("{:?} {}; judge its recordings with 'ortime verify "
                                    "--requested-hz F FILE'",
                                    facts.dir.path.string(), why_no_report(facts.dir.running)));
  }
  return facts.dir.runs;
}

}  // namespace

int run(const VerifyOptions& options) {
  Facts facts =
      facts_about(names_run(options.path) ? opened(options.path) : RunDirectory(), options.given);
  const RecordingOptions look = {.depth = Depth::counts, .chunk_bytes = options.chunk_bytes};
  const Json document = document_of(
      facts, runs_of(facts, options), look, [&](const RecordingFacts& found, const Json& part) {
        if (!facts.ended() && !found.error.empty()) {
          throw timing::Error(OT_ERR_IO, found.error);
        }
        const bool first = facts.recordings.size() == 1;
        std::cout << (first && !options.json ? lines_of(settings_json(facts)) : "");
        explain(found, facts.recordings.size());
        if (found.judged && !options.json) {
          print(part);
        }
      });
  const Summary& summary = facts.summary;
  if (options.json) {
    std::cout << text_of(document, 2);
  } else {
    std::cout << fmt::format(
        "pass={}{}{}\n", summary.pass,
        summary.unjudged == 0 ? "" : fmt::format(" unjudged={}", summary.unjudged),
        summary.disagreements == 0 ? "" : fmt::format(" disagreements={}", summary.disagreements));
  }
  return finish(facts);
}

}  // namespace orvo::inspection
