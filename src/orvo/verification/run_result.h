// What one frequency run has found out. Plain values.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace orvo::verification {

inline constexpr std::size_t kChannels = 4;

struct ChannelResult {
  std::uint64_t count = 0;    ///< decoded timestamps
  std::int64_t first_ps = 0;  ///< smallest timestamp; 0 below two timestamps, like the next
  std::int64_t last_ps = 0;   ///< largest timestamp
  double measured_hz = 0;     ///< 0 when it cannot be measured
  double ppm_error = 0;       ///< of measured_hz against the expected rate; 0 without one
  bool pass = false;
};

struct RunResult {
  double requested_hz = 0;
  double effective_hz = 0;         ///< what the calibration source really generates
  double expected_decoded_hz = 0;  ///< the same in the instrument's own time
  std::uint32_t divider = 0;       ///< of the calibration source, as the instrument reported it
  std::filesystem::path stream_file;
  std::uint64_t payload_bytes = 0;
  std::uint64_t decoded_tags = 0;  ///< all of them, also of channels that do not exist
  bool overflow_required = false;  ///< one record cannot carry the expected period
  bool pass = false;
  std::array<ChannelResult, kChannels> channels;  ///< index is the channel number
};

}  // namespace orvo::verification
