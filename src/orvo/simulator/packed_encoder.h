// Events as packed-delta records: channel (2 bits), flag (1 bit), payload (`delta_bits` bits).
//
// A data record carries the ticks since the channel's last event; overflow records before it add
// their payloads, in units of 2^delta_bits ticks. A sync, one flagged record of all ones and the
// 41 bits of the event's own tick in chunks, lowest bits first, anchors the channel's next data
// record.
//
// Threads: an encoder belongs to one thread. Errors: none.
#pragma once

#include <array>
#include <cstdint>

#include "orvo/simulator/bit_writer.h"
#include "orvo/simulator/instrument.h"

namespace orvo::simulator {

struct PackedConfig {
  std::uint8_t delta_bits = 16;       ///< 1 to 31
  std::uint16_t quantum_ps = 8;       ///< its trailing zero bits give the tick: 12 ps count in 4 ps
  std::uint64_t sync_interval = 256;  ///< events between a channel's syncs; 0: first event only
  std::uint64_t bit_phase = 0;        ///< bits of a broken record that the stream begins with
  std::uint64_t seed = 0;             ///< of these bits
  std::uint64_t start_ps = 0;         ///< no event comes earlier
};

class PackedEncoder {
 public:
  /// More than any event takes: 1,000 overflow records, or a sync, behind a broken record.
  static constexpr std::size_t kMaxEventBytes = 1100 * 34 / 8;

  explicit PackedEncoder(const PackedConfig& config);

  /// Appends the event's records; up to kMaxEventBytes and the slack of BitWriter are written.
  std::uint8_t* encode(const Event& event, std::uint8_t* out);
  /// Fills the byte begun; where that makes a whole record, one that adds no overflow.
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
  std::uint64_t max_overflow_;  // that is not sent as a sync instead
  std::uint64_t sync_interval_;
  std::uint64_t sync_records_;  // between a channel's syncs at most
  std::uint64_t records_ = 0;
  unsigned last_channel_ = 0;
  std::uint64_t broken_bits_;
  std::uint64_t seed_;
  ClockReading clock_;
  BitWriter bits_;
  std::array<Channel, kChannels> channels_;
};

}  // namespace orvo::simulator
