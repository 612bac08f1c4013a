// `ortime report`: one self-contained HTML page for a run directory.
// Threads: none of its own. Errors: timing::Error, std::filesystem::filesystem_error.
#pragma once

#include <cstdint>
#include <filesystem>

namespace orvo::inspection {

struct ReportOptions {
  std::filesystem::path path;    ///< a run as load_run() takes it
  std::filesystem::path output;  ///< the page, as OutputFile takes it
  std::uint64_t chunk_bytes = 1 << 20;  ///< read at a time; packed-delta locks depend on it
};

/// Writes the page. A page is made for every verdict: returns kExitSuccess.
[[nodiscard]] int report(const ReportOptions& options);

}  // namespace orvo::inspection
