// `ortime verify`: the evaluation of a frequency run, repeated from its recording.
// Threads: none of its own. Errors: timing::Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace orvo::inspection {

struct VerifyOptions {
  std::filesystem::path path;  ///< of a stream file, "-", or a run as load_run() takes it

  // For a stream file exactly one of the two; none for a run, whose report has them. Greater than
  // 0; the frequency stands for the nearest divider.
  std::optional<std::uint32_t> divider = std::nullopt;  ///< of the calibration source
  std::optional<double> requested_hz = std::nullopt;

  // Where they are not given: of the report, of the stream file's header, or the tool's defaults.
  std::optional<double> tolerance_ppm = std::nullopt;
  std::optional<std::uint64_t> min_tags_per_channel = std::nullopt;
  std::optional<std::uint8_t> channel_mask = std::nullopt;

  bool json = false;                    ///< one document instead of text
  std::uint64_t chunk_bytes = 1 << 20;  ///< read at a time; packed-delta locks depend on it
};

/// Prints the verdict to standard output, last: pass=true means that everything was judged, passed,
/// and is what the report has. Returns an exit status: kExitSuccess with pass=true, else
/// kExitError where a recording could not be judged, else kExitDisagreement, else
/// kExitVerificationFailed.
[[nodiscard]] int verify(const VerifyOptions& options);

}  // namespace orvo::inspection
