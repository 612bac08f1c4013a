// Events as 64-bit words, big-endian, each with its full time. In external mode that is the clock
// in picoseconds. In internal mode it is a count of coarse periods and a fine count, which tells
// how long before the end of that period the event came, in steps of 18.5 ps.
//
// Threads: an encoder belongs to one thread. Errors: none.
#pragma once

#include <cstdint>

#include "orvo/simulator/instrument.h"
#include "orvo/timing/stream_header.h"

namespace orvo::simulator {

class Raw64Encoder {
 public:
  static constexpr std::size_t kMaxEventBytes = 8;

  Raw64Encoder(timing::Mode mode, std::uint64_t start_ps)
      : coarse_fine_(mode == timing::Mode::internal), clock_(start_ps) {}

  std::uint8_t* encode(const Event& event, std::uint8_t* out) {
    const std::uint64_t clock_ps = clock_.at(event.time_ps);
    const std::uint64_t word =
        std::uint64_t{event.channel} << 61 | (coarse_fine_ ? coarse_and_fine(clock_ps) : clock_ps);
    for (unsigned i = 0; i < 8; ++i) out[i] = static_cast<std::uint8_t>(word >> (56 - 8 * i));
    return out + 8;
  }

  std::uint8_t* finish(std::uint8_t* out) { return out; }

 private:
  static std::uint64_t coarse_and_fine(std::uint64_t clock_ps) {
    constexpr std::uint64_t kMarker = std::uint64_t{0xA5C3} << 45;
    constexpr std::uint64_t kCoarseMask = 0xFFFFFFFF;
    const std::uint64_t coarse = (clock_ps + kCoarsePeriodPs - 1) / kCoarsePeriodPs;
    const std::uint64_t fine = (coarse * kCoarsePeriodPs - clock_ps) * 2 / 37;
    return kMarker | (coarse & kCoarseMask) << 13 | fine;
  }

  bool coarse_fine_;
  ClockReading clock_;
};

}  // namespace orvo::simulator
