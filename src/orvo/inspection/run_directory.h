// A verification as it was left on disk: its JSON report and its recordings.
// Plain values; any thread may call. Errors: timing::Error, with names as {:?} writes them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

/// Goes on after the run's name.
inline const char* why_no_report(bool running) {
  return running
             ? "is still running"
             : "has no report: it was stopped, an error ended it, or another program recorded it";
}

struct RunDirectory {
  std::filesystem::path path;    ///< absolute, without links
  std::filesystem::path report;  ///< the JSON report; empty where there is none
  bool running = false;          ///< the verification had not ended

  /// What a user may not expect: which run was taken of a root, that recordings lie elsewhere.
  std::vector<std::string> notes;

  // Of the report; without one they mean nothing.
  bool pass = false;
  double capture_s = 0;  ///< of every run
  /// The tolerance to three decimals; the number of timestamps that a channel needs is in no
  /// report.
  verification::EvaluationSettings settings;

  /// As reported, to the digits that the report has; without a report, those that have left a
  /// recording, with nothing else filled. `stream_file` is where the recording is now: in `path`,
  /// else where it was recorded.
  std::vector<verification::RunResult> runs;

  [[nodiscard]] bool ended() const { return !report.empty(); }
};

/// The JSON report in a run directory.
[[nodiscard]] std::string report_name();
/// Whether the tool gives recordings such names, whatever the folder.
[[nodiscard]] bool is_recording_name(const std::filesystem::path& path);

/// Whether `path` names a run as load_run() takes it, rather than a stream file.
[[nodiscard]] bool names_run(const std::filesystem::path& path);

/// The run that `path` stands for: a run directory, a JSON report, or an output root, for its
/// newest run, which must have left a report.
[[nodiscard]] RunDirectory load_run(const std::filesystem::path& path);

/// Throws when the recording of `run` is not there, and says where it was looked for.
void require_recording(const RunDirectory& dir, const verification::RunResult& run);

/// Fills from the JSON report `dir.report` what a report holds; a stream_file is where it was
/// recorded. A report without runs is an error.
void read_report(RunDirectory& dir);

}  // namespace orvo::inspection
