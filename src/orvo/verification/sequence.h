// The verification proper: one instrument, every frequency, the reports.
#pragma once

#include <filesystem>

#include "orvo/verification/config.h"

namespace orvo::verification {

/// Opens the instrument, runs every frequency in order, writes and prints the reports and returns
/// the exit status. `output_root` and `run_dir` are absolute; `run_dir` exists.
///
/// Threads: call once, from a thread that alone uses standard output and the environment.
/// Errors: whatever a step throws; later runs and the reports are then left out.
[[nodiscard]] int run_verification(const Config& config, const std::filesystem::path& output_root,
                                   const std::filesystem::path& run_dir);

}  // namespace orvo::verification
