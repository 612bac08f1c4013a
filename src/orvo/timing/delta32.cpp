#include "orvo/timing/delta32.h"

#include <algorithm>

#include "orvo/timing/byte_order.h"
#include "orvo/timing/instrument_time.h"

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

constexpr detail::TickCounter kCounter(0);  // ticks of 1 ps

bool is_control(std::uint32_t word, std::uint32_t field) {
  return word >> kPayloadBits == (kControlFlag >> kPayloadBits | field << 4 | kControlType);
}

bool is_event(std::uint32_t word) {
  return (word & kControlFlag) == 0 && (word >> kPayloadBits & 0xF) == kEventType;
}

}  // namespace

std::span<const TimeTag> Delta32Decoder::feed() {
  TimeTag* const tags = tags_.room_for(input_.size() / kWordBytes);
  TimeTag* end = tags;
  std::size_t position = 0;
  for (;;) {
    if (sync_ == Sync::searching) {
      if (!find_marker(position)) {
        break;
      }
      position = 0;
    }
    if (input_.size() - position < kWordBytes) {
      input_.remove_front(position);
      break;
    }
    if (handle_word(detail::load_big_endian_32(input_.data() + position), end)) {
      position += kWordBytes;
    } else {
      // The word stays: the marker may begin inside it, and where a chunk ends must not matter.
      base_time_ps_.reset();
      overflow_ = 0;
      sync_ = Sync::searching;
    }
  }
  return tags_.first(static_cast<std::size_t>(end - tags));
}

bool Delta32Decoder::find_marker(std::size_t from) {
  static constexpr std::array<std::uint8_t, kWordBytes> kMarkerBytes = {0xEB, 0x5A, 0x55, 0xAA};
  const std::span<const std::uint8_t> bytes = input_.bytes();
  const auto found = std::search(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end(),
                                 kMarkerBytes.begin(), kMarkerBytes.end());
  if (found == bytes.end()) {
    input_.keep_back(std::min(bytes.size(), kWordBytes - 1));
    return false;
  }
  input_.remove_front(static_cast<std::size_t>(found - bytes.begin()) + kWordBytes);
  expect_base_time();
  return true;
}

void Delta32Decoder::expect_base_time() {
  sync_ = Sync::time_low;
  base_time_ps_.reset();
  overflow_ = 0;
}

/// False: the word loses the synchronisation.
bool Delta32Decoder::handle_word(std::uint32_t word, TimeTag*& tags) {
  const std::uint32_t payload = word & kPayloadMask;
  if (word == kMarker) {
    expect_base_time();
    return true;
  }
  switch (sync_) {
    case Sync::time_low:
      if (!is_control(word, kTimeLowField)) {
        return false;
      }
      time_low_ = payload;
      sync_ = Sync::time_high;
      return true;
    case Sync::time_high:
      if (!is_control(word, kTimeHighField) || payload >= kShortPayloadLimit) {
        return false;
      }
      base_time_ps_ = std::uint64_t{payload} << kPayloadBits | time_low_;
      overflow_ = 0;
      sync_ = Sync::running;
      return true;
    default:
      return handle_running(word, tags);
  }
}

bool Delta32Decoder::handle_running(std::uint32_t word, TimeTag*& tags) {
  const std::uint32_t payload = word & kPayloadMask;
  if (is_event(word)) {
    return handle_event(word >> 29 & 3, payload, tags);
  }
  if (is_control(word, kMarkerField)) {
    return true;
  }
  if (is_control(word, kOverflowField) && payload < kShortPayloadLimit && !base_time_ps_) {
    overflow_ += payload;
    return true;
  }
  return false;
}

bool Delta32Decoder::handle_event(std::size_t channel, std::uint64_t payload, TimeTag*& tags) {
  const std::uint64_t step = (overflow_ << kPayloadBits) + payload;
  overflow_ = 0;
  std::optional<std::int64_t>& last_ps = last_time_ps_[channel];
  std::uint64_t time_ps = 0;
  if (!base_time_ps_) {
    if (!last_ps) {
      return true;  // the channel's time line has not begun
    }
    time_ps = static_cast<std::uint64_t>(*last_ps) + kCounter.corrected_step(*last_ps, step);
  } else if (!last_ps) {
    time_ps = step + *base_time_ps_;
  } else {
    time_ps = step + kCounter.placed_time(*last_ps, *base_time_ps_);
    if (static_cast<std::int64_t>(time_ps) <= *last_ps) {
      return false;
    }
  }
  base_time_ps_.reset();
  last_ps = static_cast<std::int64_t>(time_ps);
  *tags++ = {static_cast<std::uint8_t>(channel), *last_ps};
  return true;
}

}  // namespace orvo::timing
