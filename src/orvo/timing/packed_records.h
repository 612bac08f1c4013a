// Packed-delta records to timestamps, once the alignment is known.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/packed_format.h"
#include "orvo/timing/time_tag.h"

namespace orvo::timing::detail {

class RecordGroups;

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

/// What became of a batch.
struct PackedBatch {
  std::uint64_t records = 0;  ///< consumed, a dropped one included
  std::size_t tags = 0;
  std::array<std::uint64_t, 4> channel_tags{};
  std::optional<LockEvent> drop;  ///< why the lock is lost, when it is
};

/// Decodes `records` whole records that start at bit `bit_offset` (0 to 7) of `data`, up to the
/// first that loses the lock. `groups` may be null and changes the speed alone. `tags` has room for
/// one a record. Up to InputBuffer::kSlackBytes behind the last record are read and not used.
[[nodiscard]] PackedBatch decode_packed_records(const std::uint8_t* data, std::uint64_t bit_offset,
                                                std::uint64_t records, const PackedFormat& format,
                                                PackedState& state, RecordGroups* groups,
                                                TimeTag* tags);

}  // namespace orvo::timing::detail
