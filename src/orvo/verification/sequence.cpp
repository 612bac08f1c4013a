#include "orvo/verification/sequence.h"

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "orvo/timing/device.h"
#include "orvo/timing/error.h"
#include "orvo/timing/library_status.h"
#include "orvo/verification/exit_status.h"
#include "orvo/verification/frequency_run.h"
#include "orvo/verification/interruption.h"
#include "orvo/verification/report_stream.h"
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

void print_identity(const timing::Device& device) {
  std::cout << "Device: ";
  ot_identity record = {};
  timing::detail::check(ot_identify(device.handle, &record), "identify", device.handle);
  std::cout << timing::Identity::from_c(record).description << '\n';
}

void announce_run(const Config& config, std::size_t index) {
  std::cout << "Capture " << index + 1 << '/' << config.frequencies_hz.size() << ": requested "
            << Fixed{config.frequencies_hz[index], 3} << " Hz/channel" << std::endl;
}

}  // namespace

int run_verification(const Config& config, const std::filesystem::path& output_root,
                     const std::filesystem::path& run_dir) {
  const InterruptionWatch watch;  // from before the device is open until after it is closed
  timing::Device device = open_device(config);
  device.interrupted = interrupted;
  print_identity(device);

  std::vector<RunResult> results;
  results.reserve(config.frequencies_hz.size());
  bool all_pass = true;
  for (std::size_t i = 0; i < config.frequencies_hz.size(); ++i) {
    if (interrupted()) {
      throw timing::Interrupted();
    }
    announce_run(config, i);
    results.push_back(run_one(device, config, run_dir, i + 1, config.frequencies_hz[i]));
    all_pass = all_pass && results.back().pass;
  }
  write_reports(output_root, run_dir, config, results, all_pass);
  return all_pass ? kExitPassed : kExitFailed;
}

}  // namespace orvo::verification
