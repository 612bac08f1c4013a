// Any bytes as a configuration file: settings or a conversion's own exception, and reading the file
// again changes nothing.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "check.h"
#include "orvo/verification/config.h"

namespace orvo::fuzz {
namespace {

bool apply(verification::Config& config, const MemoryFile& file) {
  try {
    require(verification::apply_first_config_file(config, {"/nowhere", file.path()}).has_value());
    return true;
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  }
  return false;
}

bool has_nan(const verification::Config& config) {
  return std::isnan(config.capture_s) || std::isnan(config.tolerance_ppm);
}

}  // namespace
}  // namespace orvo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace orvo::fuzz;
  static const MemoryFile file;
  file.set({data, size});
  orvo::verification::Config config;
  const bool complete = apply(config, file);
  require(config.channel_mask <= 0x0F && !config.frequencies_hz.empty());
  require(std::all_of(config.frequencies_hz.begin(), config.frequencies_hz.end(),
                      [](double hz) { return hz > 0; }));
  orvo::verification::Config again = config;
  require(apply(again, file) == complete);
  require(has_nan(config) || again == config);
  return 0;
}
