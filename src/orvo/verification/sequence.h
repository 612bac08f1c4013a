// The verification proper: one instrument, every frequency, the reports.
#pragma once

#include <filesystem>

#include "orvo/timing/device/device.h"
#include "orvo/verification/config.h"
#include "orvo/verification/evaluation.h"

namespace orvo::verification {

/// How the tool's process ends.
enum ExitStatus : int {
  kExitPassed = 0,  // every run passed, or help was asked for
  kExitError = 1,
  kExitFailed = 2,  // everything was measured and reported, and some run did not pass
  kExitInvalidConfiguration = 64,
};

/// Sets the calibration source to `requested_hz`, records `capture_s` seconds into a stream file in
/// `run_dir`, which exists, and judges what comes back from it. `index` (1 for the first run) names
/// the file. Blocks for the capture; the calibration frequency stays set.
///
/// Errors: timing::Error of the driver library, the capture or the reader; timing::Interrupted once
/// a signal is noted. The stream file stays.
[[nodiscard]] RunResult run_one(timing::Device& device, const Config& config,
                                const std::filesystem::path& run_dir, unsigned long index,
                                double requested_hz);

/// Opens the instrument, runs every frequency in order, writes and prints the reports and returns
/// the exit status. `output_root` and `run_dir` are absolute; `run_dir` exists.
///
/// Threads: call once, from a thread that alone uses standard output and the environment.
/// Errors: those of each step; later runs and the reports are then left out.
[[nodiscard]] ExitStatus run_verification(const Config& config,
                                          const std::filesystem::path& output_root,
                                          const std::filesystem::path& run_dir);

}  // namespace orvo::verification
