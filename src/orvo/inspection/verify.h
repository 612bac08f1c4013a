// `ortime verify`: the evaluation of a frequency run, repeated from its recording.
// Threads: none of its own. Errors: timing::Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace orvo::inspection {

struct VerifyOptions {
  std::filesystem::path path;  ///< of a stream file, or of a run directory

  // For a stream file exactly one of the two; none for a run directory, whose report has them.
  std::optional<std::uint32_t> divider;  ///< of the calibration source, greater than 0
  std::optional<double> expected_decoded_hz;

  // Where they are not given: of the report, of the stream file's header, or the tool's defaults.
  std::optional<double> tolerance_ppm;
  std::optional<std::uint64_t> min_tags_per_channel;
  std::optional<std::uint8_t> channel_mask;

  std::uint64_t chunk_bytes = 1 << 20;  ///< read at a time; packed-delta locks depend on it
};

/// Prints the verdict to standard output and returns an exit status: kExitSuccess or
/// kExitVerificationFailed.
[[nodiscard]] int verify(const VerifyOptions& options);

}  // namespace orvo::inspection
