// What happens to a packed-delta lock, as data and as a line of text. Plain values and functions
// without state: any thread may use them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "orvo/timing/stream_header.h"

namespace orvo::timing {

struct LockEvent {
  enum class Kind {
    // The search for a lock.
    locked,
    no_alignment,
    rejected_alignment,
    // Why a lock was dropped.
    inactive_channel,
    overflow_in_sync,
    sync_channel_mismatch,
    nonmonotonic_sync,
    implausible_sync_delta,
    implausible_delta,
    imbalanced,
  };

  Kind kind;

  // Every kind.
  std::uint64_t payload_offset_bytes = 0;  ///< payload consumed when it happened
  std::uint64_t tags_before = 0;           ///< timestamps returned from what was consumed

  // locked, rejected_alignment, no_alignment.
  std::uint64_t drop_bytes = 0;    ///< skipped before the alignment; no_alignment: given up
  std::uint64_t bit_offset = 0;    ///< of the alignment, 0 to 7; not of no_alignment
  std::uint64_t buffer_bytes = 0;  ///< locked: after the skip; no_alignment: searched

  // rejected_alignment, imbalanced: over the active channels.
  unsigned synced = 0;    ///< channels that the rejected alignment syncs
  std::uint64_t min = 0;  ///< records (imbalanced: timestamps) of the least active channel
  std::uint64_t max = 0;  ///< of the most active channel
  std::uint64_t total = 0;

  // Dropped locks; records are counted within their batch.
  std::uint64_t record = 0;       ///< the one at fault, from 0; not of imbalanced
  std::uint64_t records = 0;      ///< of the whole batch
  unsigned channel = 0;           ///< of the record at fault; not of imbalanced
  unsigned sync_channel = 0;      ///< sync_channel_mismatch: the one that was expected
  unsigned sync_chunks_left = 0;  ///< overflow_in_sync, sync_channel_mismatch
  std::int64_t delta_ps = 0;      ///< implausible_sync_delta; implausible_delta: modulo 2^64
  std::int64_t next_ps = 0;       ///< nonmonotonic_sync, implausible_sync_delta
  std::int64_t prev_ps = 0;       ///< these and implausible_delta: the channel's last time
};

/// Called by the thread that reads, in the order of the events.
using LockListener = std::function<void(const LockEvent&)>;

/// Whether the event ended a lock.
[[nodiscard]] constexpr bool drops_lock(LockEvent::Kind kind) {
  switch (kind) {
    case LockEvent::Kind::locked:
    case LockEvent::Kind::no_alignment:
    case LockEvent::Kind::rejected_alignment:
      return false;
    default:
      return true;
  }
}

/// One line without its end; `header` is that of the stream.
[[nodiscard]] std::string describe(const LockEvent& event, const StreamFileHeader& header);

}  // namespace orvo::timing
