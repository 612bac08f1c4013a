// Packed-delta records to timestamps, once the alignment is known.
//
// Threads: plain functions on the caller's state.
#pragma once

#include <array>
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

// What the loop and RecordGroups work on.

/// The four channels, one element each. An ordinary record is one to which no correction and no
/// limit of the rules applies; the bounds reduce that question to one comparison a record, and
/// leave the record to the rules where they are 0.
struct PackedLanes {
  using PerChannel = std::array<std::uint64_t, 4>;

  PerChannel time_ps;
  PerChannel overflow;
  PerChannel overflow_bound;      ///< a flagged payload below this only adds to `overflow`
  PerChannel step_bound_ps;       ///< steps below this are ordinary; 0 while there is overflow
  PerChannel full_step_bound_ps;  ///< the same for steps with overflow
  /// How far a tag moves the end of the tags: sizeof(TimeTag), or 0 while the channel has no time
  /// and its tags are overwritten by the next.
  PerChannel tag_bytes;
  PerChannel tags;  ///< decoded in this batch
};

/// The place in a batch.
struct PackedCursor {
  const std::uint8_t* data;
  std::uint64_t position;  ///< of the next record's first bit
  std::uint64_t stop;      ///< after the last record's last bit
  TimeTag* end;            ///< where the next tag goes
};

}  // namespace orvo::timing::detail
