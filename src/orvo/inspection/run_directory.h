// What a verification has left in its run directory: its JSON report and its stream files.
// Plain values; any thread may call load_run_directory().
#pragma once

#include <filesystem>
#include <vector>

#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

struct RunDirectory {
  std::filesystem::path path;
  bool pass = false;     ///< as reported
  double capture_s = 0;  ///< of every run

  /// As reported, but for `min_tags_per_channel`, which the report lacks: the tool's default.
  verification::EvaluationSettings settings;

  /// As reported, to the digits that the report has. `stream_file` is where the file is now: its
  /// recorded path, else its name in `path`; where neither is a file, its recorded path.
  std::vector<verification::RunResult> runs;
};

/// Where the JSON report of the run directory is.
[[nodiscard]] std::filesystem::path report_path(const std::filesystem::path& run_dir);

/// Reads the JSON report of the run directory at `path`.
/// Errors: timing::Error, OT_ERR_IO or OT_ERR_FORMAT, with a message that names the file and, where
/// there is one, the member at fault. A report without runs is one of them.
[[nodiscard]] RunDirectory load_run_directory(const std::filesystem::path& path);

}  // namespace orvo::inspection
