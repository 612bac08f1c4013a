// What all parts of the simulated instrument share: channels, time line, events, random numbers.
//
// Threads: a ClockReading belongs to one thread; the rest is for any.
#pragma once

#include <cstdint>

namespace orvo::simulator {

inline constexpr unsigned kChannels = 4;

/// The instrument's clock counts picoseconds and returns to 0 after 2^32 periods of 3333 ps.
inline constexpr std::uint64_t kCoarsePeriodPs = 3333;
inline constexpr std::uint64_t kWrapPs = kCoarsePeriodPs << 32;

/// Delta32 and packed-delta streams count the time between events in a counter of 41 bits.
inline constexpr unsigned kTickBits = 41;
inline constexpr std::uint64_t kTickMask = (std::uint64_t{1} << kTickBits) - 1;

/// The end of the instrument's time line, after 106 days: a later event never occurs. The sum of a
/// time before the end and any period fits 64 bits.
inline constexpr std::uint64_t kTimeLineEndPs = std::uint64_t{1} << 63;

/// A time that never comes, a count that is never reached.
inline constexpr std::uint64_t kNever = ~std::uint64_t{0};

/// An event on the continuous time line, which the clock shows modulo kWrapPs.
struct Event {
  std::uint64_t time_ps = kNever;
  unsigned channel = 0;
};

/// The clock's reading at times that never decrease.
class ClockReading {
 public:
  explicit ClockReading(std::uint64_t start_ps) : base_ps_(start_ps - start_ps % kWrapPs) {}

  std::uint64_t at(std::uint64_t time_ps) {
    if (time_ps - base_ps_ >= kWrapPs) {
      base_ps_ = time_ps - time_ps % kWrapPs;
    }
    return time_ps - base_ps_;
  }

 private:
  std::uint64_t base_ps_;
};

/// A random number for each `counter`, the same in every run and on every machine.
inline std::uint64_t random_at(std::uint64_t seed, std::uint64_t counter) {
  std::uint64_t x = seed + counter * 0x9E3779B97F4A7C15U;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31);
}

}  // namespace orvo::simulator
