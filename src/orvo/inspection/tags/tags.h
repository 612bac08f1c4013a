// `ortime tags`: the timestamps of a stream file, in a form that other programs read.
// Threads: none of its own. Errors: timing::Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "orvo/inspection/tags/tag_writer.h"

namespace orvo::inspection {

struct TagsOptions {
  std::filesystem::path file;
  std::filesystem::path output = "-";  ///< as OutputFile takes it
  TagFormat format = TagFormat::csv;
  std::uint8_t channel_mask = 0x0F;     ///< bit c: channel c is wanted
  std::optional<std::int64_t> from_ps;  ///< the first time that is wanted
  std::optional<std::int64_t> to_ps;    ///< the first time behind it that is not
  std::uint64_t chunk_bytes = 1 << 20;  ///< read at a time; packed-delta locks depend on it
};

/// Writes the tags in decoding order, in memory that does not grow with the file. Returns
/// kExitSuccess.
[[nodiscard]] int tags(const TagsOptions& options);

}  // namespace orvo::inspection
