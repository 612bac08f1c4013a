// What the decoding of packed-delta records carries from one record to the next. Plain values.
#pragma once

#include <array>
#include <cstdint>

namespace orvo::timing::detail {

/// What a lock knows; lost with it. Times are picoseconds modulo 2^64, read as signed.
struct PackedState {
  struct Channel {
    std::uint64_t overflow = 0;  ///< overflow payloads since the last data record
    std::int64_t last_time_ps = 0;
    bool timed = false;  ///< `last_time_ps` holds; a channel's time line starts at its first sync

    bool operator==(const Channel&) const = default;
  };

  std::array<Channel, 4> channels;

  unsigned sync_records_left = 0;  ///< of the sync being assembled; 0: none is
  unsigned sync_channel = 0;
  std::uint64_t sync_value = 0;
  unsigned sync_bits = 0;

  static constexpr unsigned kNoChannel = 4;
  unsigned pending_sync_channel = kNoChannel;  ///< its next data record is anchored to a sync
  std::uint64_t pending_sync_time_ps = 0;

  bool operator==(const PackedState&) const = default;
};

}  // namespace orvo::timing::detail
