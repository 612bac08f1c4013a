#include "orvo/simulator/encoders.h"

#include <algorithm>
#include <bit>

namespace orvo::simulator {
namespace {

// Words of delta32.
constexpr unsigned kPayloadBits = 25;
constexpr std::uint64_t kPayloadMask = (std::uint64_t{1} << kPayloadBits) - 1;

constexpr std::uint32_t kWordMarker = 0xEB5A55AA;
constexpr std::uint32_t kEvent = 10U << kPayloadBits;
constexpr std::uint32_t kControl = 1U << 31 | 5U << kPayloadBits;
constexpr std::uint32_t kOverflow = kControl;
constexpr std::uint32_t kTimeLow = kControl | 1U << 29;
constexpr std::uint32_t kTimeHigh = kControl | 2U << 29;

// Packed-delta: a larger step takes fewer records as a sync, far fewer at the clock's wrap.
constexpr std::uint64_t kMaxOverflowRecords = 1000;

// A reader looks for syncs of all channels in 64 KiB; slow channels in narrow records would take
// more than that for 256 events.
constexpr std::uint64_t kMaxBytesBetweenSyncs = 16 * 1024;

template <typename Word>
std::uint8_t* put_big_endian(Word word, std::uint8_t* out) {
  for (std::size_t i = 0; i < sizeof word; ++i) {
    out[i] = static_cast<std::uint8_t>(word >> (8 * (sizeof word - 1 - i)));
  }
  return out + sizeof word;
}

std::uint8_t* put_word(std::uint32_t kind, std::uint64_t payload, std::uint8_t* out) {
  return put_big_endian(kind | static_cast<std::uint32_t>(payload), out);
}

std::uint64_t coarse_and_fine(std::uint64_t clock_ps) {
  constexpr std::uint64_t kMarker = std::uint64_t{0xA5C3} << 45;
  constexpr std::uint64_t kCoarseMask = 0xFFFFFFFF;
  const std::uint64_t coarse = (clock_ps + kCoarsePeriodPs - 1) / kCoarsePeriodPs;
  const std::uint64_t fine = (coarse * kCoarsePeriodPs - clock_ps) * 2 / 37;
  return kMarker | (coarse & kCoarseMask) << 13 | fine;
}

}  // namespace

std::uint8_t* Raw64Encoder::encode(const Event& event, std::uint8_t* out) {
  const std::uint64_t clock_ps = clock_.at(event.time_ps);
  const std::uint64_t time = coarse_and_fine_ ? coarse_and_fine(clock_ps) : clock_ps;
  return put_big_endian(std::uint64_t{event.channel} << 61 | time, out);
}

std::uint8_t* Delta32Encoder::encode(const Event& event, std::uint8_t* out) {
  const std::uint64_t tick = clock_.at(event.time_ps) & kTickMask;
  const std::uint32_t kind = kEvent | event.channel << 29;
  std::optional<std::uint64_t>& last = last_tick_[event.channel];
  if (!last) {
    // Any base up to 2^25 ps before the event would do; this one is never below zero.
    const std::uint64_t payload = tick & 0xFFF;
    const std::uint64_t base = tick - payload;
    out = put_word(kWordMarker, 0, out);
    out = put_word(kTimeLow, base & kPayloadMask, out);
    out = put_word(kTimeHigh, base >> kPayloadBits, out);
    out = put_word(kind, payload, out);
  } else {
    const std::uint64_t step = (tick - *last) & kTickMask;
    if (step > kPayloadMask) {
      out = put_word(kOverflow, step >> kPayloadBits, out);
    }
    out = put_word(kind, step & kPayloadMask, out);
  }
  last = tick;
  return out;
}

PackedEncoder::PackedEncoder(const Settings& settings, const StreamConfig& config)
    : delta_bits_(config.delta_bits),
      tick_shift_(static_cast<unsigned>(std::countr_zero(config.quantum_ps))),
      all_ones_((std::uint64_t{1} << config.delta_bits) - 1),
      max_overflow_(kMaxOverflowRecords * (all_ones_ - 1)),
      sync_interval_(settings.sync_interval == 0 ? kNever : settings.sync_interval),
      sync_records_(settings.sync_interval == 0 ? kNever
                                                : kMaxBytesBetweenSyncs * 8 / (delta_bits_ + 3)),
      seed_(random_at(settings.seed, config.source.start_ps)),
      broken_bits_(settings.bit_phase.value_or(seed_ >> 32) % (delta_bits_ + 3U)),
      clock_(config.source.start_ps) {}

std::uint8_t* PackedEncoder::encode(const Event& event, std::uint8_t* out) {
  Channel& channel = channels_[event.channel];
  last_channel_ = event.channel;
  const std::uint64_t tick = (clock_.at(event.time_ps) >> tick_shift_) & kTickMask;
  const std::uint64_t step = (tick - channel.tick) & kTickMask;
  const std::uint64_t overflow = step >> delta_bits_;
  if (sync_due(channel) || overflow > max_overflow_) [[unlikely]] {
    // A reader takes a sync on the tick of the event before for a step of 0: the next event syncs.
    if (channel.events_left == 0 || step != 0) {
      return put_sync(event.channel, tick, out);
    }
  }
  channel.tick = tick;
  if (channel.events_left > 1) {
    --channel.events_left;
  }
  if (overflow != 0) {
    out = put_overflow(event.channel, overflow, out);
  }
  return put(event.channel, false, step & all_ones_, out);
}

std::uint8_t* PackedEncoder::finish(std::uint8_t* out) {
  if (bits_.missing() >= delta_bits_ + 3) {
    out = put(last_channel_, true, 0, out);
  }
  if (bits_.missing() != 0) {
    out = bits_.put(0, bits_.missing(), out);
  }
  return out;
}

bool PackedEncoder::sync_due(const Channel& channel) const {
  return channel.events_left <= 1 || records_ - channel.records_at_sync >= sync_records_;
}

std::uint8_t* PackedEncoder::put_broken_record(unsigned channel, std::uint8_t* out) {
  const std::uint64_t payload = random_at(seed_, channel) & all_ones_;
  const std::uint64_t record = std::uint64_t{channel} << (delta_bits_ + 1) | payload;
  const std::uint64_t tail = record & ((std::uint64_t{1} << broken_bits_) - 1);
  out = bits_.put(tail, static_cast<unsigned>(broken_bits_), out);
  broken_bits_ = 0;
  return out;
}

std::uint8_t* PackedEncoder::put_sync(unsigned channel, std::uint64_t tick, std::uint8_t* out) {
  if (broken_bits_ != 0) {
    out = put_broken_record(channel, out);
  }
  channels_[channel] = {tick, sync_interval_, records_};
  const unsigned chunks = (delta_bits_ + kTickBits - 1) / delta_bits_;
  out = put(channel, true, all_ones_, out);
  for (unsigned chunk = 0; chunk < chunks; ++chunk) {
    out = put(channel, false, (tick >> (chunk * delta_bits_)) & all_ones_, out);
  }
  return put(channel, false, 0, out);
}

std::uint8_t* PackedEncoder::put_overflow(unsigned channel, std::uint64_t overflow,
                                          std::uint8_t* out) {
  while (overflow != 0) {
    const std::uint64_t payload = std::min(overflow, all_ones_ - 1);
    out = put(channel, true, payload, out);
    overflow -= payload;
  }
  return out;
}

}  // namespace orvo::simulator
