// discover_and_record FILE: lists the attached instruments and records the first one for a
// second, its calibration source set to 10 kHz.
#include <chrono>
#include <exception>
#include <iostream>

#include "orvo/timing/device/device.h"

namespace timing = orvo::timing;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: discover_and_record FILE\n";
    return 64;
  }
  try {
    for (const timing::DiscoveredDevice& found : timing::Device::discover()) {
      std::cout << found.port << ' ' << found.identity.description << '\n';
    }
    timing::Device device = timing::Device::open_first(timing::kLibraryBaud);
    const auto payload_bytes = device.capture(
        {.path = argv[1], .duration = std::chrono::seconds(1), .cal_freq_hz = 10'000});
    std::cout << payload_bytes << " bytes recorded\n";
    return 0;
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
