// One frequency, from the calibration source to the verdict.
#pragma once

#include <filesystem>

#include "orvo/timing/device.h"
#include "orvo/verification/config.h"
#include "orvo/verification/run_result.h"

namespace orvo::verification {

/// Sets the calibration source to `requested_hz`, records `capture_s` seconds into a stream file in
/// `run_dir`, which exists, and judges what comes back from it. `index` (1 for the first run) names
/// the file. Blocks for the capture; the calibration frequency stays set.
///
/// Errors: timing::Error of the driver library, the capture or the reader; the stream file stays.
[[nodiscard]] RunResult run_one(timing::Device& device, const Config& config,
                                const std::filesystem::path& run_dir, unsigned long index,
                                double requested_hz);

}  // namespace orvo::verification
