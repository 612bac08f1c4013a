// Events as bytes, one encoder per record format. An encoder appends the records of one event at a
// time; see docs/stream-format.md for the formats.
//
// Threads: an encoder belongs to one thread. Errors: none.
// encode() writes one event's records at `out` and returns their end; it may write kMaxEventBytes
// and, after them, BitWriter::kSlackBytes. finish() completes the last byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "orvo/simulator/event_source.h"
#include "orvo/simulator/instrument.h"
#include "orvo/simulator/settings.h"

namespace orvo::simulator {

/// 64-bit words, big-endian, each with its event's full time. In external mode that is the clock in
/// picoseconds. In internal mode it is a count of coarse periods, and a fine count of how long
/// before the end of that period the event occurred, in steps of 18.5 ps.
class Raw64Encoder {
 public:
  static constexpr std::size_t kMaxEventBytes = 8;

  Raw64Encoder(const Settings& /*settings*/, const StreamConfig& config)
      : coarse_and_fine_(config.source.mode == timing::Mode::internal),
        clock_(config.source.start_ps) {}

  std::uint8_t* encode(const Event& event, std::uint8_t* out);
  std::uint8_t* finish(std::uint8_t* out) { return out; }

 private:
  bool coarse_and_fine_;
  ClockReading clock_;
};

/// 32-bit words, big-endian: control flag, 2 bits channel, 4 bits type, 25 bits payload. Each event
/// carries the picoseconds since its channel's last event modulo 2^25; an overflow word directly
/// before it carries the rest. A marker and the two halves of a base time precede the first event
/// of a channel, which counts from that base.
class Delta32Encoder {
 public:
  static constexpr std::size_t kMaxEventBytes = 16;

  Delta32Encoder(const Settings& /*settings*/, const StreamConfig& config)
      : clock_(config.source.start_ps) {}

  std::uint8_t* encode(const Event& event, std::uint8_t* out);
  std::uint8_t* finish(std::uint8_t* out) { return out; }

 private:
  ClockReading clock_;
  std::array<std::optional<std::uint64_t>, kChannels> last_tick_;
};

/// Packs bit fields without gaps, most significant bit first.
class BitWriter {
 public:
  /// put() may overwrite this many bytes after the position that it returns.
  static constexpr unsigned kSlackBytes = 8;

  /// Appends the low `width` bits (1 to 56) of `value`, whose other bits are 0. Returns the
  /// position after the last whole byte.
  std::uint8_t* put(std::uint64_t value, unsigned width, std::uint8_t* out) {
    bits_ |= value << (64 - used_ - width);
    used_ += width;
    for (unsigned i = 0; i < 8; ++i) {
      out[i] = static_cast<std::uint8_t>(bits_ >> (56 - 8 * i));
    }
    const unsigned whole = used_ / 8;
    bits_ <<= 8 * whole;
    used_ %= 8;
    return out + whole;
  }

  /// The number of bits that complete the last byte, 0 when it is complete.
  [[nodiscard]] unsigned missing() const { return (8 - used_) % 8; }

 private:
  std::uint64_t bits_ = 0;  // left-aligned
  unsigned used_ = 0;       // below 8 between calls
};

/// Packed-delta records: channel (2 bits), flag (1 bit), payload (`delta_bits` bits). A data record
/// carries the ticks since the channel's last event. Overflow records before it add their payloads,
/// in units of 2^delta_bits ticks. A sync anchors the channel's next data record: one flagged
/// record of all ones, then the 41 bits of the event's own tick in chunks, lowest bits first.
class PackedEncoder {
 public:
  /// More than any event takes: 1,000 overflow records, or a sync after a broken record.
  static constexpr std::size_t kMaxEventBytes = 1100 * 34 / 8;

  PackedEncoder(const Settings& settings, const StreamConfig& config);

  std::uint8_t* encode(const Event& event, std::uint8_t* out);
  /// Where the missing bits make a whole record, it is one that adds no overflow.
  std::uint8_t* finish(std::uint8_t* out);

 private:
  struct Channel {
    std::uint64_t tick = 0;
    std::uint64_t events_left = 0;  // until a sync is due; 0 before the first event
    std::uint64_t records_at_sync = 0;
  };

  std::uint8_t* put(unsigned channel, bool flag, std::uint64_t payload, std::uint8_t* out) {
    const std::uint64_t head = (channel << 1) | (flag ? 1U : 0U);
    ++records_;
    return bits_.put(head << delta_bits_ | payload, delta_bits_ + 3, out);
  }

  [[nodiscard]] bool sync_due(const Channel& channel) const;
  std::uint8_t* put_broken_record(unsigned channel, std::uint8_t* out);
  std::uint8_t* put_sync(unsigned channel, std::uint64_t tick, std::uint8_t* out);
  std::uint8_t* put_overflow(unsigned channel, std::uint64_t overflow, std::uint8_t* out);

  unsigned delta_bits_;
  unsigned tick_shift_;
  std::uint64_t all_ones_;
  std::uint64_t max_overflow_;  // a larger one is sent as a sync
  std::uint64_t sync_interval_;
  std::uint64_t sync_records_;  // between a channel's syncs at most
  std::uint64_t records_ = 0;
  unsigned last_channel_ = 0;
  std::uint64_t seed_;         // of the broken record that the stream begins with
  std::uint64_t broken_bits_;  // of it, until they are written
  ClockReading clock_;
  BitWriter bits_;
  std::array<Channel, kChannels> channels_;
};

}  // namespace orvo::simulator
