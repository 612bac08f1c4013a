// `ortime tags`: the timestamps of a stream file, in a form that other programs read.
// Threads: none of its own. Errors: timing::Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace orvo::inspection {

enum class TagFormat { csv, npy };

struct TagsOptions {
  std::filesystem::path path;          ///< a stream file, "-", or a run as load_run() takes it
  std::uint64_t run = 0;               ///< which recording of a run, from 1 on; 0: the only one
  std::filesystem::path output = "-";  ///< as OutputFile takes it
  TagFormat format = TagFormat::csv;
  std::uint8_t channel_mask = 0x0F;     ///< bit c: channel c is wanted
  std::optional<std::int64_t> from_ps;  ///< the first time that is wanted
  std::optional<std::int64_t> to_ps;    ///< the first time after it that is not
  std::uint64_t chunk_bytes = 1 << 20;  ///< read at a time; packed-delta locks depend on it
};

/// Writes the tags in decoding order, in memory that does not grow with the file. Returns
/// kExitSuccess.
[[nodiscard]] int tags(const TagsOptions& options);

}  // namespace orvo::inspection
