#include "orvo/verification/sequence.h"

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "orvo/verification/capture_line.h"
#include "orvo/verification/interruption.h"
#include "orvo/verification/reports.h"

namespace orvo::verification {
namespace {

std::string choose_port(const Config& config) {
  if (!config.control_port.empty()) {
    return config.control_port;
  }
  const char* port = std::getenv("ORVO_TIMING_PORT");
  return port == nullptr ? "" : port;
}

timing::Device open_device(const Config& config) {
  const std::string port = choose_port(config);
  if (!config.usb_serial.empty()) {
    // The driver library picks the instrument by it.
    setenv("ORVO_TIMING_USB_SERIAL", config.usb_serial.c_str(), 1);
  }
  if (port.empty()) {
    return timing::Device::open_first(timing::kLibraryBaud);
  }
  return timing::Device::open(port, timing::kLibraryBaud);
}

void print_identity(timing::Device& device) {
  std::cout << "Device: ";  // first, so that an unfinished line shows what failed
  std::cout << device.identify().description << '\n';
}

void announce_run(const Config& config, std::size_t index) {
  std::cout << "Capture " << index + 1 << '/' << config.frequencies_hz.size() << ": requested "
            << Fixed{config.frequencies_hz[index], 3} << " Hz/channel" << std::endl;
}

std::string stream_file_name(unsigned long index) {
  return std::string(kVerificationName) + (index < 10 ? "_0" : "_") + std::to_string(index) +
         kRecordingEnding;
}

/// Records one run and shows how far it is; returns the payload bytes.
std::uint64_t record(timing::Device& device, const Config& config, const std::string& path,
                     double requested_hz) {
  CaptureLine line(config.capture_s, config.queue_chunks);
  return device.capture({.path = path,
                         .duration = std::chrono::duration<double>(config.capture_s),
                         .mode = timing::Mode::internal,
                         .format = timing::Format::packed_delta,
                         .channel_mask = config.channel_mask,
                         .tdl_index = config.tdl_index,
                         .cal_freq_hz = requested_hz,
                         .packed_bits = config.packed_bits,
                         .packed_quantum_ps = config.packed_quantum_ps,
                         .transport = timing::Transport::usb,
                         .chunk_bytes = config.chunk_bytes,
                         .queue_chunks = config.queue_chunks,
                         .interrupted =
                             [&] {
                               const bool now = interrupted();
                               if (now) {
                                 line.clear();  // what waits for a slow disk may take a while
                               }
                               return now;
                             },
                         .progress = [&](const auto& progress) { line.show(progress); }});
}

}  // namespace

RunResult run_one(timing::Device& device, const Config& config,
                  const std::filesystem::path& run_dir, unsigned long index, double requested_hz) {
  const std::uint32_t divider = device.set_calibration_freq(requested_hz);
  const std::filesystem::path stream_file = run_dir / stream_file_name(index);
  const std::uint64_t payload_bytes = record(device, config, stream_file.string(), requested_hz);
  RunResult result = judge(
      read_tag_statistics(stream_file.string(), payload_bytes, config.chunk_bytes, interrupted),
      derive_rates(divider, config), config);
  result.requested_hz = requested_hz;
  result.stream_file = stream_file;
  result.payload_bytes = payload_bytes;
  return result;
}

ExitStatus run_verification(const Config& config, const std::filesystem::path& output_root,
                            const std::filesystem::path& run_dir) {
  const InterruptionWatch watch;  // from before the device is open until after it is closed
  timing::Device device = open_device(config);
  print_identity(device);

  std::vector<RunResult> results;
  results.reserve(config.frequencies_hz.size());
  bool all_pass = true;
  for (std::size_t i = 0; i < config.frequencies_hz.size(); ++i) {
    timing::throw_if(interrupted);
    announce_run(config, i);
    results.push_back(run_one(device, config, run_dir, i + 1, config.frequencies_hz[i]));
    all_pass = all_pass && results.back().pass;
  }
  write_reports(output_root, run_dir, config, results, all_pass);
  return all_pass ? kExitPassed : kExitFailed;
}

}  // namespace orvo::verification
