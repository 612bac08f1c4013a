// The packed-delta decoder in its plainest form: one record at a time, every rule written out where
// it applies, the lock search by trying every start. The decoder of the timing layer has to agree
// with it in everything that can be seen, and its speed is given as a multiple of this one's.
// It shares no code with the timing layer, only the types of what comes out.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <optional>
#include <vector>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::tests {

/// What a drop of the lock sets back.
struct PlainLock {
  bool locked = false;
  std::uint64_t bit_offset = 0;
  std::array<std::uint64_t, 4> last_time{};  // this and all other times modulo 2^64
  std::array<bool, 4> pk_have_time{};
  std::array<std::uint64_t, 4> overflow{};
  unsigned sync_chunks_left = 0, sync_channel = 0;
  std::uint64_t sync_value = 0, sync_bits = 0;
  int pending_sync_channel = -1;
  std::uint64_t pending_sync_time = 0;
};

class PlainDecoder : public PlainLock {
 public:
  using Event = timing::LockEvent;

  explicit PlainDecoder(const timing::StreamFileHeader& header) : header_(header) {}

  /// One batch: takes a lock if there is none, decodes all whole records of `input_buffer`.
  std::vector<timing::TimeTag> feed_packed_delta();

  /// The lock search alone, of widths from 1 to 31: the best place to begin (`locked`), or else the
  /// best one that was refused (`rejected_alignment`).
  [[nodiscard]] std::optional<Event> probe_packed_alignment() const;

  std::vector<std::uint8_t> input_buffer;
  std::vector<Event> log;
  std::uint64_t records_decoded = 0;

 private:
  using Counts = std::array<std::uint64_t, 4>;
  struct Record {
    unsigned channel;
    bool flag;
    std::uint64_t payload;
  };

  [[nodiscard]] bool active(unsigned channel) const { return (active_mask_ >> channel & 1U) != 0; }
  [[nodiscard]] Record read_record(std::uint64_t bit) const;
  [[nodiscard]] Event tally(Event::Kind kind, const Counts& counts) const;
  [[nodiscard]] Event parse_from(std::uint64_t byte, std::uint64_t shift, std::uint64_t n) const;
  bool take_lock();
  void remove_front(std::uint64_t bytes);
  void report(Event event);

  // These return whether the lock holds; if not, `drop_` says why.
  bool decode_record(const Record& record);
  bool synced_data(unsigned channel, std::uint64_t step_ps);
  bool plain_data(unsigned channel, std::uint64_t step_ps);
  bool emit(unsigned channel, std::uint64_t time_ps);
  bool drop(Event::Kind kind, unsigned channel, std::uint64_t next_ps = 0,
            std::uint64_t prev_ps = 0);
  void complete_sync();

  static constexpr std::uint64_t kWrapPs = 0xD0500000000;  // time wraps to 0: 3333 * 2^32

  timing::StreamFileHeader header_;
  bool internal_ = header_.mode == timing::Mode::internal;
  unsigned active_mask_ = header_.channel_mask == 0 ? 15U : header_.channel_mask & 15U;
  unsigned active_channels_ = static_cast<unsigned>(std::popcount(active_mask_));
  unsigned bits_ = header_.delta_bits == 0 ? 16U : header_.delta_bits;
  unsigned width_ = bits_ + 3;
  unsigned sync_length_ = (bits_ + 40) / bits_;
  std::uint64_t all_ones_ = bits_ > 31 ? 0 : (std::uint64_t{1} << bits_) - 1;
  int quantum_shift_ = header_.quantum_ps == 0 ? 3 : std::countr_zero(header_.quantum_ps);
  // P: of the instrument's 41-bit tick counter. E: of a difference modulo P across the wrap of the
  // picosecond time. M: the smaller of P and the wrap.
  std::uint64_t period_ps_ = std::uint64_t{1} << 41 << quantum_shift_;
  std::uint64_t excess_ps_ = (kWrapPs + period_ps_ - 1) / period_ps_ * period_ps_ - kWrapPs;
  std::uint64_t modulus_ps_ = std::min(period_ps_, kWrapPs);

  std::uint64_t removed_bytes_ = 0, returned_tags_ = 0;
  Event drop_{};
  Counts batch_counts_{};
  std::vector<timing::TimeTag> tags_;
};

}  // namespace orvo::tests
