// The tool's settings and the one function through which every setting reaches them.
// Plain values and functions without state: any thread may call them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvo::verification {

struct Config {
  std::string control_port;  ///< empty: ORVO_TIMING_PORT or the first instrument found
  std::string usb_serial;    ///< not empty: handed to the driver library by environment
  double capture_s = 0.35;   ///< of each frequency run
  std::vector<double> frequencies_hz = {1000, 10000, 100000};  ///< in run order
  std::uint8_t channel_mask = 0x0F;  ///< bit c for channel c; in a verdict 0 means all four
  std::uint8_t tdl_index = 0;
  std::uint8_t packed_bits = 16;        ///< width of one packed delta
  std::uint16_t packed_quantum_ps = 8;  ///< time quantum of one packed-delta step
  std::uint64_t chunk_bytes = 1048576;  ///< one read, from the instrument and from the file
  std::uint64_t queue_chunks = 128;     ///< reads that may wait for the disk
  double tolerance_ppm = 25.0;          ///< largest accepted rate error of a channel
  std::uint64_t min_tags_per_channel = 64;
  std::optional<std::filesystem::path> output_root;  ///< unset: the tool's default

  bool operator==(const Config&) const = default;
};

/// `text` without the ASCII white space around it.
[[nodiscard]] std::string trim(std::string_view text);

/// Sets what `key` names, in any case and with white space around key and value. Unknown keys and
/// empty values change nothing. A malformed number throws the conversion's own
/// std::invalid_argument or std::out_of_range and leaves the setting as it was.
void apply_config_line(Config& config, std::string key, std::string value);

/// Whether a run can be attempted with these settings.
[[nodiscard]] bool is_valid(const Config& config);

}  // namespace orvo::verification
