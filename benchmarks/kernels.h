// The kernels between which a decoder chooses when it is made.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "orvo/timing/stream_decoder.h"

namespace orvo::benchmarks {

/// Those that this processor can run, by the names that force them.
[[nodiscard]] inline std::vector<std::string> kernels() {
  std::vector<std::string> names = {"portable"};
  if (__builtin_cpu_supports("avx512vbmi")) names.emplace_back("avx512");
  return names;
}

[[nodiscard]] inline std::unique_ptr<timing::StreamDecoder> make_decoder(
    const timing::StreamFileHeader& header, const std::string& kernel) {
  constexpr const char* kVariable = "ORVO_PACKED_KERNEL";
  setenv(kVariable, kernel.c_str(), 1);
  auto decoder = std::make_unique<timing::StreamDecoder>(header);
  unsetenv(kVariable);
  return decoder;
}

}  // namespace orvo::benchmarks
