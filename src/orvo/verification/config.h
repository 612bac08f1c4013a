// The tool's settings: where they come from and the one function that sets them.
// Plain values and functions without state: any thread may call them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "orvo/verification/evaluation.h"

namespace orvo::verification {

/// All settings of a verification; those that the verdict depends on are in the base.
struct Config : EvaluationSettings {
  std::string control_port;  ///< empty: ORVO_TIMING_PORT or the first instrument found
  std::string usb_serial;    ///< not empty: handed to the driver library by environment
  double capture_s = 0.35;   ///< of each frequency run
  std::vector<double> frequencies_hz = {1'000, 10'000, 100'000};  ///< in run order
  std::uint8_t tdl_index = 0;
  std::uint64_t chunk_bytes = 1 << 20;  ///< one read, from the instrument and from the file
  std::uint64_t queue_chunks = 128;     ///< reads that may wait for the disk
  std::optional<std::filesystem::path> output_root;  ///< unset: the tool's default

  bool operator==(const Config&) const = default;
};

/// Sets what `key` names, in any case and with white space around key and value. Unknown keys and
/// empty values change nothing. A malformed number throws the conversion's own
/// std::invalid_argument or std::out_of_range and leaves the setting as it was.
void apply_config_line(Config& config, std::string key, std::string value);

/// Where the settings file may be, in search order: in the program's folder, in the working
/// directory, in `source_dir`/verification. `argv` is the program's argument vector, of which only
/// the first is used. Throws std::filesystem::filesystem_error without a working directory.
[[nodiscard]] std::vector<std::filesystem::path> config_candidates(
    char** argv, const std::filesystem::path& source_dir);

/// Applies the lines of the first candidate that can be opened, even if it is empty, and returns
/// its path.
std::optional<std::filesystem::path> apply_first_config_file(
    Config& config, const std::vector<std::filesystem::path>& candidates);

/// Whether a run can be attempted with these settings.
[[nodiscard]] bool is_valid(const Config& config);

}  // namespace orvo::verification
