// The kernels between which a decoder chooses when it is made.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "orvo/timing/stream_decoder.h"

namespace orvo::benchmarks {

/// The packed-delta decoder by the names of the plain one.
class FastDecoder {
 public:
  explicit FastDecoder(const timing::StreamFileHeader& header)
      : decoder_(timing::StreamDecoder::make(header)) {}

  void append(std::span<const std::uint8_t> bytes) { decoder_->append(bytes); }
  std::span<const timing::TimeTag> feed_packed_delta() {
    const std::span<const timing::TimeTag> tags = decoder_->feed();
    for (const timing::LockEvent& event : decoder_->lock_events()) {
      locked_ = event.kind == timing::LockEvent::Kind::locked;
    }
    return tags;
  }
  [[nodiscard]] bool locked() const { return locked_; }

 private:
  std::unique_ptr<timing::StreamDecoder> decoder_;
  bool locked_ = false;
};

/// Those that this processor can run, by the names that force them.
[[nodiscard]] inline std::vector<std::string> kernels() {
  std::vector<std::string> names = {"portable"};
  if (__builtin_cpu_supports("avx512vbmi")) {
    names.emplace_back("avx512");
  }
  return names;
}

/// What `make` returns where it chooses that kernel.
template <typename Make>
[[nodiscard]] auto with_kernel(const std::string& kernel, const Make& make) {
  constexpr const char* kVariable = "ORVO_PACKED_KERNEL";
  setenv(kVariable, kernel.c_str(), 1);
  auto made = make();
  unsetenv(kVariable);
  return made;
}

[[nodiscard]] inline std::unique_ptr<FastDecoder> make_decoder(
    const timing::StreamFileHeader& header, const std::string& kernel) {
  return with_kernel(kernel, [&] { return std::make_unique<FastDecoder>(header); });
}

}  // namespace orvo::benchmarks
