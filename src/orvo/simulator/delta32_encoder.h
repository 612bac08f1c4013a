// Events as 32-bit words, big-endian: control flag, 2 bits channel, 4 bits type, 25 bits payload.
// Each event carries the picoseconds since its channel's last event modulo 2^25; an overflow word
// directly before it brings the rest. The first event of a channel stands behind a marker and the
// two halves of a base time, from which it counts.
//
// Threads: an encoder belongs to one thread. Errors: none.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "orvo/simulator/instrument.h"

namespace orvo::simulator {

class Delta32Encoder {
 public:
  static constexpr std::size_t kMaxEventBytes = 16;

  explicit Delta32Encoder(std::uint64_t start_ps) : clock_(start_ps) {}

  std::uint8_t* encode(const Event& event, std::uint8_t* out);
  std::uint8_t* finish(std::uint8_t* out) { return out; }

 private:
  ClockReading clock_;
  std::array<std::optional<std::uint64_t>, kChannels> last_tick_;
};

}  // namespace orvo::simulator
