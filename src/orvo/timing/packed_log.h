// What happens to a packed-delta lock, as data, and the line that tells a person.
#pragma once

#include <cstdint>
#include <string>

#include "orvo/timing/packed_format.h"

namespace orvo::timing::detail {

struct LockEvent {
  enum class Kind {
    locked,
    no_alignment,
    rejected_alignment,
    inactive_channel,
    overflow_in_sync,
    sync_channel_mismatch,
    nonmonotonic_sync,
    implausible_sync_delta,
    implausible_delta,
    imbalanced,
  };

  Kind kind;

  // Position. Records are counted within their batch.
  std::uint64_t drop_bytes = 0;
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

[[nodiscard]] std::string describe(const LockEvent& event, const PackedFormat& format);

}  // namespace orvo::timing::detail
