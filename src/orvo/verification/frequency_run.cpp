#include "orvo/verification/frequency_run.h"

#include <chrono>
#include <cstdint>
#include <string>

#include "orvo/timing/library_status.h"
#include "orvo/verification/evaluation.h"

namespace orvo::verification {
namespace {

EvaluationSettings evaluation_settings(const Config& config) {
  return {.channel_mask = config.channel_mask,
          .tolerance_ppm = config.tolerance_ppm,
          .min_tags_per_channel = config.min_tags_per_channel,
          .packed_bits = config.packed_bits,
          .packed_quantum_ps = config.packed_quantum_ps};
}

/// Programs the calibration source and returns the divider that the instrument chose.
std::uint32_t set_calibration_freq(timing::Device& device, double freq_hz) {
  std::uint32_t divider = 0;
  timing::detail::check(ot_set_calibration_freq(device.handle, freq_hz, &divider),
                        "set_calibration_freq", device.handle);
  return divider;
}

std::string stream_file_name(unsigned long index) {
  return (index < 10 ? "overflow_frequency_0" : "overflow_frequency_") + std::to_string(index) +
         ".ortime";
}

}  // namespace

RunResult run_one(timing::Device& device, const Config& config,
                  const std::filesystem::path& run_dir, unsigned long index, double requested_hz) {
  const EvaluationSettings settings = evaluation_settings(config);
  RunResult result;
  result.requested_hz = requested_hz;
  derive_rates(set_calibration_freq(device, requested_hz), settings, result);

  result.stream_file = run_dir / stream_file_name(index);
  const std::string path = result.stream_file.string();
  result.payload_bytes = device.stream_to_file_for(
      path, std::chrono::duration<double>(config.capture_s), timing::Mode::internal,
      timing::Format::packed_delta, config.channel_mask, config.tdl_index, requested_hz,
      config.packed_bits, config.packed_quantum_ps, timing::Transport::usb, config.chunk_bytes,
      config.queue_chunks);

  judge(read_tag_statistics(path, config.chunk_bytes, device.interrupted), settings, result);
  return result;
}

}  // namespace orvo::verification
