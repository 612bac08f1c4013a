// What happens to a packed-delta lock, as data, and the line that tells a person. Plain values and
// functions without state: any thread may use them.
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

  // Place in the stream.
  std::uint64_t payload_offset_bytes = 0;  ///< payload consumed when it happened
  std::uint64_t tags_before = 0;           ///< timestamps given out from what was consumed

  // Position. Records are counted within their batch.
  std::uint64_t drop_bytes = 0;  ///< skipped by it, or by the alignment that was rejected
  std::uint64_t bit_offset = 0;
  std::uint64_t buffer_bytes = 0;
  std::uint64_t record = 0;
  std::uint64_t records = 0;

  // The record at fault.
  unsigned channel = 0;
  unsigned sync_channel = 0;
  unsigned sync_records_left = 0;
  std::uint64_t delta_ps = 0;
  std::uint64_t next_ps = 0;
  std::uint64_t prev_ps = 0;

  // Balance of the active channels.
  unsigned synced = 0;
  std::uint64_t min = 0;
  std::uint64_t max = 0;
  std::uint64_t total = 0;
};

/// Called by the thread that reads, in the order of the events.
using LockListener = std::function<void(const LockEvent&)>;

/// Whether the event ended a lock.
[[nodiscard]] constexpr bool drops_lock(LockEvent::Kind kind) {
  return kind >= LockEvent::Kind::inactive_channel;
}

/// One line without its end; `header` is that of the stream.
[[nodiscard]] std::string describe(const LockEvent& event, const StreamFileHeader& header);

}  // namespace orvo::timing
