// What a parse remembers while an alignment is judged: which channels sync, and how many records
// they have. It reconstructs no times.
#pragma once

#include <array>
#include <cstdint>

#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

/// Channel and flag of the record at the top of `bits`: the channel twice, plus the flag.
[[nodiscard]] inline unsigned record_kind(std::uint64_t bits) {
  return static_cast<unsigned>(bits >> 61);
}

[[nodiscard]] constexpr unsigned data_kind(unsigned channel) { return 2 * channel; }

/// Of the record at the top of `bits`, whatever its channel.
[[nodiscard]] inline bool is_sync_start(std::uint64_t bits, const PackedFormat& format) {
  const std::uint64_t flag_and_payload = format.all_ones << 1 | 1;
  return (bits >> (64 - format.width) & flag_and_payload) == flag_and_payload;
}

struct AlignmentParse {
  static constexpr unsigned kNoChannel = 4;

  /// Data records since the channel's first sync, its anchored one included. A channel is synced
  /// when it has any: the first is counted because it is the anchored one.
  std::array<std::uint32_t, 4> counts{};
  unsigned sync_records_left = 0;
  unsigned sync_channel = 0;
  unsigned pending_channel = kNoChannel;  ///< its next data record is anchored to a sync
  std::uint64_t restart = 0;  ///< bit behind the record that last reset the parse; 0: none did

  [[nodiscard]] bool was_reset() const { return restart != 0; }

  /// Nothing is known or under way: only a sync start can change that.
  [[nodiscard]] bool idle() const {
    return sync_records_left == 0 && pending_channel == kNoChannel &&
           (counts[0] | counts[1] | counts[2] | counts[3]) == 0;
  }

  /// Takes the record at the top of `bits`, which ends before bit `end` of the stream.
  void take(std::uint64_t bits, std::uint64_t end, const PackedFormat& format) {
    const unsigned kind = record_kind(bits);
    const unsigned channel = kind / 2;
    const bool flag = (kind & 1) != 0;
    if (!format.active(channel)) {
      reset(end);
    } else if (sync_records_left > 0) {
      if (channel != sync_channel || flag) {
        reset(end);
      } else if (--sync_records_left == 0) {
        pending_channel = channel;
      }
    } else if (flag) {
      if (is_sync_start(bits, format)) {
        sync_records_left = format.sync_records;
        sync_channel = channel;
      }
    } else if (pending_channel == channel) {
      ++counts[channel];
      pending_channel = kNoChannel;
    } else if (counts[channel] > 0) {
      ++counts[channel];
    }
  }

  void reset(std::uint64_t end) {
    *this = {};
    restart = end;
  }
};

}  // namespace orvo::timing::detail
