// The packed-delta decoder in its plainest form: one record at a time, every rule written out where
// it applies, the lock search by trying every start. The decoder of the timing layer has to agree
// with it in everything that can be seen, and its speed is given as a multiple of this one's.
// It shares no code with the timing layer. One thread per object.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::tests {

/// What a drop of the lock sets back.
struct PlainLock {
  bool locked = false;
  std::uint64_t bit_offset = 0;
  std::array<std::int64_t, 4> pk_last_time{};
  std::array<bool, 4> pk_have_time{};
  std::array<std::uint64_t, 4> pk_overflow{};
  std::array<std::int64_t, 4> pk_last_emitted{};
  std::array<bool, 4> pk_have_emitted{};
  std::int32_t sync_chunks_left = 0;
  std::int32_t sync_channel = 0;
  std::uint64_t sync_value = 0;
  std::uint32_t sync_bits = 0;
  std::int32_t pending_sync_channel = -1;
  std::uint64_t pending_sync_time = 0;
};

class PlainDecoder : public PlainLock {
 public:
  struct Alignment {
    std::uint64_t drop_bytes = 0;
    std::uint64_t bit_offset = 0;
    bool found = false;
  };

  explicit PlainDecoder(timing::StreamFileHeader header);

  /// One batch: takes a lock if there is none, decodes all whole records of `input_buffer`.
  std::vector<timing::TimeTag> feed_packed_delta();

  /// The lock search alone, over `input_buffer`; changes nothing but `log`.
  /// Widths of 1 to 31 only.
  Alignment probe_packed_alignment();

  std::vector<std::uint8_t> input_buffer;
  std::vector<std::string> log;  ///< all messages, without prefix and limit
  std::uint64_t records_decoded = 0;
  std::uint64_t searches = 0;
  std::uint64_t steps_searched = 0;  ///< records read by lock searches

 private:
  struct Record {
    unsigned channel;
    bool flag;
    std::uint64_t payload;
  };
  struct Parse {
    std::array<std::uint64_t, 4> counts{};
    std::array<bool, 4> synced{};
    std::uint64_t restart = 0;  // records read up to the last reset
  };
  struct Tally {
    std::uint64_t min, max, total;  // over the active channels
  };

  [[nodiscard]] bool active(unsigned channel) const { return (active_mask_ >> channel & 1U) != 0; }
  [[nodiscard]] Record read_record(std::uint64_t bit) const;
  [[nodiscard]] Tally tally(const std::array<std::uint64_t, 4>& counts) const;
  [[nodiscard]] Parse simulate(std::uint64_t first_bit, std::uint64_t n) const;
  bool take_lock();
  void consume_packed_records(std::uint64_t count);

  // These answer false for a drop.
  template <typename... Parts>
  bool drop(const Parts&... message_parts);
  bool decode_record(const Record& record, std::uint64_t i, std::uint64_t n);
  bool synced_data(unsigned channel, std::uint64_t step_ps, std::uint64_t i);
  bool plain_data(unsigned channel, std::uint64_t step_ps, std::uint64_t i);
  void complete_sync();
  bool emit(unsigned channel, std::uint64_t time_ps);

  bool internal_;
  unsigned active_mask_;
  unsigned active_channels_;
  unsigned bits_;
  unsigned width_;
  std::int32_t sync_length_;
  std::uint64_t all_ones_;
  unsigned quantum_shift_;
  std::uint64_t period_ps_;   // P: of the instrument's 41-bit tick counter
  std::uint64_t excess_ps_;   // E: of a difference modulo P across the wrap of the picosecond time
  std::uint64_t modulus_ps_;  // M: the smaller of P and the wrap
  std::array<std::uint64_t, 4> batch_counts_{};
  std::vector<timing::TimeTag> tags_;
};

}  // namespace orvo::tests
