// Every rule of the packed-delta records, one record at a time: complete, plain and out of the
// way of the fast loop, which hands over whatever it does not handle itself.
#pragma once

#include <cstdint>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/packed/format.h"
#include "orvo/timing/packed/state.h"

namespace orvo::timing::detail {

class PackedRules {
 public:
  enum class Outcome {
    silent,  ///< no tag
    tag,     ///< the record's channel has an event at its `last_time_ps`
    drop,    ///< the lock is lost; drop() says why
  };

  PackedRules(const PackedFormat& format, PackedState& state) : format_(format), state_(state) {}

  [[nodiscard]] Outcome take(std::uint64_t record);

  /// Of the last Outcome::drop; where in the batch it happened is for the caller to add.
  [[nodiscard]] const LockEvent& drop() const noexcept { return drop_; }

 private:
  Outcome take_sync_record(unsigned channel, bool flag, std::uint64_t payload);
  void complete_sync();
  Outcome take_anchored(unsigned channel, std::uint64_t step);
  Outcome take_step(unsigned channel, std::uint64_t step);
  Outcome lose(LockEvent::Kind kind, unsigned channel);
  Outcome lose_sync_delta(unsigned channel, std::uint64_t next, std::uint64_t prev);

  const PackedFormat& format_;
  PackedState& state_;
  LockEvent drop_{};
};

}  // namespace orvo::timing::detail
