#include "orvo/simulator/packed_encoder.h"

#include <algorithm>
#include <bit>

namespace orvo::simulator {
namespace {

// A larger step is shorter as a sync, at the clock's wrap by far.
constexpr std::uint64_t kMaxOverflowRecords = 1000;

// A reader looks for syncs of all channels in 64 KiB; slow channels in narrow records need more
// than that for 256 events.
constexpr std::uint64_t kMaxBytesBetweenSyncs = 16 * 1024;

}  // namespace

PackedEncoder::PackedEncoder(const PackedConfig& config)
    : delta_bits_(config.delta_bits),
      tick_shift_(static_cast<unsigned>(std::countr_zero(config.quantum_ps))),
      all_ones_((std::uint64_t{1} << config.delta_bits) - 1),
      max_overflow_(kMaxOverflowRecords * (all_ones_ - 1)),
      sync_interval_(config.sync_interval == 0 ? kNever : config.sync_interval),
      sync_records_(config.sync_interval == 0 ? kNever
                                              : kMaxBytesBetweenSyncs * 8 / (delta_bits_ + 3)),
      broken_bits_(config.bit_phase % (delta_bits_ + 3U)),
      seed_(config.seed),
      clock_(config.start_ps) {}

std::uint8_t* PackedEncoder::encode(const Event& event, std::uint8_t* out) {
  Channel& channel = channels_[event.channel];
  last_channel_ = event.channel;
  const std::uint64_t tick = (clock_.at(event.time_ps) >> tick_shift_) & kTickMask;
  const std::uint64_t step = (tick - channel.tick) & kTickMask;
  const std::uint64_t overflow = step >> delta_bits_;
  if (sync_due(channel) || overflow > max_overflow_) [[unlikely]] {
    // A sync on the tick of the event before would be read as a step of nothing: the next will do.
    if (channel.events_left == 0 || step != 0) return put_sync(event.channel, tick, out);
  }
  channel.tick = tick;
  if (channel.events_left > 1) --channel.events_left;
  if (overflow != 0) out = put_overflow(event.channel, overflow, out);
  return put(event.channel, false, step & all_ones_, out);
}

std::uint8_t* PackedEncoder::finish(std::uint8_t* out) {
  if (bits_.missing() >= delta_bits_ + 3) out = put(last_channel_, true, 0, out);
  if (bits_.missing() != 0) out = bits_.put(0, bits_.missing(), out);
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
  if (broken_bits_ != 0) out = put_broken_record(channel, out);
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
