#include "orvo/simulator/delta32_encoder.h"

namespace orvo::simulator {
namespace {

constexpr unsigned kPayloadBits = 25;
constexpr std::uint64_t kPayloadMask = (std::uint64_t{1} << kPayloadBits) - 1;

constexpr std::uint32_t kMarker = 0xEB5A55AA;
constexpr std::uint32_t kEvent = 10U << kPayloadBits;
constexpr std::uint32_t kControl = 1U << 31 | 5U << kPayloadBits;
constexpr std::uint32_t kOverflow = kControl;
constexpr std::uint32_t kTimeLow = kControl | 1U << 29;
constexpr std::uint32_t kTimeHigh = kControl | 2U << 29;

std::uint8_t* put(std::uint32_t kind, std::uint64_t payload, std::uint8_t* out) {
  const std::uint32_t word = kind | static_cast<std::uint32_t>(payload);
  for (unsigned i = 0; i < 4; ++i) out[i] = static_cast<std::uint8_t>(word >> (24 - 8 * i));
  return out + 4;
}

}  // namespace

std::uint8_t* Delta32Encoder::encode(const Event& event, std::uint8_t* out) {
  const std::uint64_t tick = clock_.at(event.time_ps) & kTickMask;
  const std::uint32_t kind = kEvent | event.channel << 29;
  std::optional<std::uint64_t>& last = last_tick_[event.channel];
  if (!last) {
    // Any base less than 2^25 ps before the event does; this one never is below zero.
    const std::uint64_t payload = tick & 0xFFF;
    const std::uint64_t base = tick - payload;
    out = put(kMarker, 0, out);
    out = put(kTimeLow, base & kPayloadMask, out);
    out = put(kTimeHigh, base >> kPayloadBits, out);
    out = put(kind, payload, out);
  } else {
    const std::uint64_t step = (tick - *last) & kTickMask;
    if (step > kPayloadMask) out = put(kOverflow, step >> kPayloadBits, out);
    out = put(kind, step & kPayloadMask, out);
  }
  last = tick;
  return out;
}

}  // namespace orvo::simulator
