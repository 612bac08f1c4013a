// What is common to every part of the simulated instrument.
#pragma once

#include <cstdint>

namespace orvo::simulator {

inline constexpr unsigned kChannels = 4;

/// The instrument's clock counts picoseconds and returns to 0 after 2^32 periods of 3333 ps.
inline constexpr std::uint64_t kCoarsePeriodPs = 3333;
inline constexpr std::uint64_t kWrapPs = kCoarsePeriodPs << 32;

/// Differences between events are taken in a counter of 41 bits.
inline constexpr unsigned kTickBits = 41;
inline constexpr std::uint64_t kTickMask = (std::uint64_t{1} << kTickBits) - 1;

/// The end of the instrument's time line, 106 days after its 0: a later event never comes. Times
/// before it can be added to any period without leaving 64 bits.
inline constexpr std::uint64_t kTimeLineEndPs = std::uint64_t{1} << 63;

/// A time that never comes.
inline constexpr std::uint64_t kNever = ~std::uint64_t{0};

/// An event on the instrument's continuous time line, which the clock shows modulo kWrapPs.
struct Event {
  std::uint64_t time_ps = kNever;
  unsigned channel = 0;
};

/// The clock's reading at times that never go back.
class ClockReading {
 public:
  explicit ClockReading(std::uint64_t start_ps) : base_ps_(start_ps - start_ps % kWrapPs) {}

  std::uint64_t at(std::uint64_t time_ps) {
    if (time_ps - base_ps_ >= kWrapPs) base_ps_ = time_ps - time_ps % kWrapPs;
    return time_ps - base_ps_;
  }

 private:
  std::uint64_t base_ps_;
};

/// A random number for each `counter`, the same in every run: no state to carry along.
inline std::uint64_t random_at(std::uint64_t seed, std::uint64_t counter) {
  std::uint64_t x = seed + counter * 0x9E3779B97F4A7C15U;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31);
}

}  // namespace orvo::simulator
