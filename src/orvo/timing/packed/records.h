// Packed-delta records to timestamps, once the alignment is known.
//
// Threads: plain functions on the caller's state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/packed/format.h"
#include "orvo/timing/packed/rules.h"
#include "orvo/timing/time_tag.h"

namespace orvo::timing::detail {

class RecordGroups;

/// What became of a batch.
struct PackedBatch {
  std::uint64_t records = 0;  ///< consumed, a dropped one included
  std::size_t tags = 0;
  ChannelCounts channel_tags{};
  std::optional<LockEvent> drop;  ///< why the lock is lost, when it is
};

/// Decodes `records` whole records that start at bit `bit_offset` (0 to 7) of `data`, up to the
/// first that loses the lock. `groups` may be null and changes the speed alone. `tags` has room for
/// one tag a record. Up to InputBuffer::kSlackBytes after the last record are read and not used.
[[nodiscard]] PackedBatch decode_packed_records(const std::uint8_t* data, std::uint64_t bit_offset,
                                                std::uint64_t records, const PackedFormat& format,
                                                PackedState& state, RecordGroups* groups,
                                                TimeTag* tags);

}  // namespace orvo::timing::detail
