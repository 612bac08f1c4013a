// The payload of a stream file, to be streamed again.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "orvo/simulator/payload.h"

namespace orvo::simulator {

/// The part of a stream file's header that the instrument has to report back.
struct RecordingInfo {
  bool packed_delta = false;
  std::uint8_t delta_bits = 0;
  std::uint16_t quantum_ps = 0;
};

class Recording final : public Payload {
 public:
  /// Throws std::runtime_error when the file cannot be read or is no stream file.
  explicit Recording(const std::string& path);

  [[nodiscard]] const RecordingInfo& info() const { return info_; }

  std::span<std::uint8_t> next(std::size_t wanted, std::uint64_t until_ps) override;
  [[nodiscard]] std::uint64_t time_ps() const override { return 0; }

 private:
  std::ifstream file_;
  RecordingInfo info_;
  std::vector<std::uint8_t> block_;
};

}  // namespace orvo::simulator
