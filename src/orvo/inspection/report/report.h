// `ortime report`: one self-contained HTML page for a run, and its numbers as JSON.
// Threads: none of its own. Errors: timing::Error, std::filesystem::filesystem_error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace orvo::inspection {

struct ReportOptions {
  std::filesystem::path path;           ///< of the run, as load_run() takes it
  std::filesystem::path output;         ///< the page; "-": standard output; empty: none
  std::filesystem::path json;           ///< the numbers, likewise
  std::string title;                    ///< on the page; may be empty
  std::uint64_t chunk_bytes = 1 << 20;  ///< read at a time; packed-delta locks depend on it
};

/// Writes what is asked for, whatever the verdict. Returns kExitSuccess, or kExitError where a
/// recording could not be read, which standard error and the page say.
[[nodiscard]] int report(const ReportOptions& options);

}  // namespace orvo::inspection
