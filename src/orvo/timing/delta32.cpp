// Delta32 records: four bytes, big-endian, time since the channel's previous event. A marker word
// and the two halves of a base time anchor the next event; between them the stream is lost.

#include <algorithm>

#include "orvo/timing/big_endian.h"
#include "orvo/timing/instrument_time.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {
namespace {

// A word: control flag, channel field (2), type (4), payload (25).
constexpr std::size_t kWordBytes = 4;
constexpr std::uint32_t kMarker = 0xEB5A'55AA;
constexpr std::uint32_t kControlFlag = 0x8000'0000;
constexpr std::uint32_t kControlType = 5;
constexpr std::uint32_t kEventType = 10;
constexpr unsigned kPayloadBits = 25;
constexpr std::uint32_t kPayloadMask = (1U << kPayloadBits) - 1;
/// Overflow counts and the high half of a base time have 16 bits; the rest must be zero.
constexpr std::uint32_t kShortPayloadLimit = 1U << 16;

// Channel field of a control word.
constexpr std::uint32_t kOverflowField = 0;
constexpr std::uint32_t kTimeLowField = 1;
constexpr std::uint32_t kTimeHighField = 2;
constexpr std::uint32_t kMarkerField = 3;

constexpr std::uint64_t kBasePeriodPs = 1ULL << detail::kTickBits;

bool is_control(std::uint32_t word, std::uint32_t field) {
  return word >> kPayloadBits == (kControlFlag >> kPayloadBits | field << 4 | kControlType);
}

bool is_event(std::uint32_t word) {
  return (word & kControlFlag) == 0 && (word >> kPayloadBits & 0xF) == kEventType;
}

/// The step since the channel's last event, corrected when the clock wrapped in between.
std::uint64_t corrected_step(std::int64_t last_ps, std::uint64_t step) {
  if (step > detail::kTickWrapExcessPs) {
    const std::uint64_t corrected = step - detail::kTickWrapExcessPs;
    if (corrected <= detail::kUncheckedStepPs ||
        detail::crosses_wrap(detail::not_before_zero(last_ps), corrected)) {
      return corrected;
    }
  }
  return step;
}

/// The base time placed near the channel's last event: it is told modulo its 41 bits only.
std::uint64_t placed_base(std::int64_t last_ps, std::uint64_t base) {
  const std::uint64_t reference = detail::not_before_zero(last_ps);
  base += reference & ~(kBasePeriodPs - 1);
  if (base + kBasePeriodPs / 2 < reference) {
    base += kBasePeriodPs;
  }
  return reference < base ? reference + corrected_step(last_ps, base - reference) : base;
}

}  // namespace

std::span<const TimeTag> StreamDecoder::feed_delta32() {
  TimeTag* const tags = tags_.room_for(input_buffer.size() / kWordBytes);
  TimeTag* end = tags;
  std::size_t position = 0;
  for (;;) {
    if (delta32_.sync == Delta32Sync::searching) {
      if (!find_delta32_marker(position)) {
        break;
      }
      position = 0;
    }
    if (input_buffer.size() - position < kWordBytes) {
      input_buffer.remove_front(position);
      break;
    }
    if (handle_delta32_word(detail::load_big_endian_32(input_buffer.data() + position), end)) {
      position += kWordBytes;
    } else {
      // The word stays: the marker may begin inside it, and where a chunk ends must not matter.
      delta32_.pending_base_ps.reset();
      delta32_.overflow = 0;
      delta32_.sync = Delta32Sync::searching;
    }
  }
  return tags_.first(static_cast<std::size_t>(end - tags));
}

bool StreamDecoder::find_delta32_marker(std::size_t from) {
  static constexpr std::array<std::uint8_t, kWordBytes> kMarkerBytes = {0xEB, 0x5A, 0x55, 0xAA};
  const std::span<const std::uint8_t> bytes = input_buffer.bytes();
  const auto found = std::search(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end(),
                                 kMarkerBytes.begin(), kMarkerBytes.end());
  if (found == bytes.end()) {
    input_buffer.keep_back(std::min(bytes.size(), kWordBytes - 1));
    return false;
  }
  input_buffer.remove_front(static_cast<std::size_t>(found - bytes.begin()) + kWordBytes);
  start_delta32_base();
  return true;
}

void StreamDecoder::start_delta32_base() {
  delta32_.sync = Delta32Sync::time_low;
  delta32_.pending_base_ps.reset();
  delta32_.overflow = 0;
}

/// False: the word loses the synchronisation.
bool StreamDecoder::handle_delta32_word(std::uint32_t word, TimeTag*& tags) {
  const std::uint32_t payload = word & kPayloadMask;
  if (word == kMarker) {
    start_delta32_base();
    return true;
  }
  switch (delta32_.sync) {
    case Delta32Sync::time_low:
      if (!is_control(word, kTimeLowField)) {
        return false;
      }
      delta32_.time_low = payload;
      delta32_.sync = Delta32Sync::time_high;
      return true;
    case Delta32Sync::time_high:
      if (!is_control(word, kTimeHighField) || payload >= kShortPayloadLimit) {
        return false;
      }
      delta32_.pending_base_ps = std::uint64_t{payload} << kPayloadBits | delta32_.time_low;
      delta32_.overflow = 0;
      delta32_.sync = Delta32Sync::running;
      return true;
    default:
      return handle_delta32_running(word, tags);
  }
}

bool StreamDecoder::handle_delta32_running(std::uint32_t word, TimeTag*& tags) {
  const std::uint32_t payload = word & kPayloadMask;
  if (is_event(word)) {
    return handle_delta32_event(word >> 29 & 3, payload, tags);
  }
  if (is_control(word, kMarkerField)) {
    return true;
  }
  if (is_control(word, kOverflowField) && payload < kShortPayloadLimit &&
      !delta32_.pending_base_ps) {
    delta32_.overflow += payload;
    return true;
  }
  return false;
}

bool StreamDecoder::handle_delta32_event(std::size_t channel, std::uint64_t payload,
                                         TimeTag*& tags) {
  const std::uint64_t step = (delta32_.overflow << kPayloadBits) + payload;
  delta32_.overflow = 0;
  std::optional<std::int64_t>& last_ps = delta32_.last_time_ps[channel];
  std::uint64_t time_ps = 0;
  if (!delta32_.pending_base_ps) {
    if (!last_ps) {
      return true;  // the channel's time line has not begun
    }
    time_ps = static_cast<std::uint64_t>(*last_ps) + corrected_step(*last_ps, step);
  } else if (!last_ps) {
    time_ps = step + *delta32_.pending_base_ps;
  } else {
    time_ps = step + placed_base(*last_ps, *delta32_.pending_base_ps);
    if (static_cast<std::int64_t>(time_ps) <= *last_ps) {
      return false;
    }
  }
  delta32_.pending_base_ps.reset();
  last_ps = static_cast<std::int64_t>(time_ps);
  *tags++ = {static_cast<std::uint8_t>(channel), *last_ps};
  return true;
}

}  // namespace orvo::timing
