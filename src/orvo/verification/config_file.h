// The configuration file: where it is looked for and how its lines become settings.
// No state. Errors: std::filesystem::filesystem_error without a working directory; a malformed
// number as in apply_config_line().
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "orvo/verification/config.h"

namespace orvo::verification {

/// Where the file may be, in search order: beside the program, in the working directory, in
/// `source_dir`/verification. `argv` is the program's argument vector, of which only the first is
/// used.
[[nodiscard]] std::vector<std::filesystem::path> config_candidates(
    char** argv, const std::filesystem::path& source_dir);

/// Applies the first candidate that can be opened, even if it is empty, and returns its path.
std::optional<std::filesystem::path> apply_first_config_file(
    Config& config, const std::vector<std::filesystem::path>& candidates);

}  // namespace orvo::verification
