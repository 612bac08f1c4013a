// `ortime info`: what stream files hold.
// Threads: none of its own. Errors: timing::Error of one file go to standard error and the next
// file follows.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "orvo/inspection/recording.h"

namespace orvo::inspection {

struct InfoOptions {
  std::vector<std::filesystem::path> paths;  ///< stream files, or runs for their recordings
  bool json = false;                         ///< one document instead of text
  std::uint64_t chunk_bytes = 1 << 20;       ///< read at a time; packed-delta locks depend on it
};

/// Prints to standard output. Returns kExitSuccess, or kExitError where a file could not be read.
[[nodiscard]] int info(const InfoOptions& options);

/// What the stream file at `path` holds. What is not defined (the rate of a single tag) is null;
/// strings are as the file has them, so that a dump has to replace what is no UTF-8. Throws
/// timing::Error; a warning about its header goes to standard error.
[[nodiscard]] nlohmann::ordered_json facts_of(const std::filesystem::path& path,
                                              const RecordingOptions& options);

/// `facts` as lines of name=value, safe for a terminal whatever the file holds.
[[nodiscard]] std::string text_of(const nlohmann::ordered_json& facts);

}  // namespace orvo::inspection
