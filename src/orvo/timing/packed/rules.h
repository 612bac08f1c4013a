// Every rule of the packed-delta records, one record at a time, written to be read. The loop in
// records.cpp calls it for the records that it does not decode itself.
//
// Threads: PackedRules belongs to the thread that owns its state.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

/// What is carried from one record to the next under a lock, and reset when the lock is lost.
/// Times are picoseconds modulo 2^64, read as signed.
struct PackedState {
  struct Channel {
    std::uint64_t overflow = 0;  ///< sum of the overflow payloads since the last data record
    std::optional<std::int64_t> last_time_ps;  ///< a channel's time line starts at its first sync
  };

  std::array<Channel, kChannels> channels;

  unsigned sync_chunks_left = 0;  ///< records missing from the sync being assembled; 0 if none is
  unsigned sync_channel = 0;
  std::uint64_t sync_value = 0;
  unsigned sync_bits = 0;  ///< of `sync_value`, assembled so far

  unsigned pending_sync_channel =
      PackedFormat::kNoChannel;  ///< its next data record counts from the sync
  std::uint64_t pending_sync_time_ps = 0;
};

class PackedRules {
 public:
  enum class Outcome {
    silent,  ///< no tag
    tag,     ///< the record's channel has an event at its `last_time_ps`
    drop,    ///< the lock is lost; drop_event() says why
  };

  /// Both arguments must outlive the rules; `state` is changed by each record.
  PackedRules(const PackedFormat& format, PackedState& state) : format_(format), state_(state) {}

  [[nodiscard]] Outcome take(std::uint64_t record);

  /// Of the last Outcome::drop. The caller adds the record's place in the batch.
  [[nodiscard]] const LockEvent& drop_event() const noexcept { return drop_event_; }

 private:
  Outcome take_sync_chunk(unsigned channel, bool flag, std::uint64_t payload);
  void complete_sync();
  Outcome take_anchored(unsigned channel, std::uint64_t step_ps);
  Outcome take_step(unsigned channel, std::uint64_t step_ps);
  Outcome drop(LockEvent::Kind kind, unsigned channel);
  Outcome drop_sync_delta(unsigned channel, std::uint64_t next_ps, std::uint64_t prev_ps);

  const PackedFormat& format_;
  PackedState& state_;
  LockEvent drop_event_{};
};

}  // namespace orvo::timing::detail
