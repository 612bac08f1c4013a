#include "orvo/timing/packed/rules.h"

#include "orvo/timing/instrument_time.h"

namespace orvo::timing::detail {
namespace {

constexpr std::uint64_t kTickMask = (std::uint64_t{1} << TickCounter::kBits) - 1;

}  // namespace

PackedRules::Outcome PackedRules::take(std::uint64_t record) {
  const auto channel = static_cast<unsigned>(record >> (format_.bits + 1));
  const bool flag = (record >> format_.bits & 1) != 0;
  const std::uint64_t payload = record & format_.all_ones;

  if (!format_.active(channel)) {
    return drop(LockEvent::Kind::inactive_channel, channel);
  }
  if (state_.sync_chunks_left > 0) {
    return take_sync_chunk(channel, flag, payload);
  }
  std::uint64_t& overflow = state_.channels[channel].overflow;
  if (flag) {
    if (payload == format_.all_ones) {
      state_.sync_chunks_left = format_.sync_records;
      state_.sync_channel = channel;
      state_.sync_value = 0;
      state_.sync_bits = 0;
      overflow = 0;
    } else {
      overflow += payload;
    }
    return Outcome::silent;
  }
  const std::uint64_t step_ps = ((overflow << format_.bits) + payload) << format_.quantum_shift;
  overflow = 0;
  return channel == state_.pending_sync_channel ? take_anchored(channel, step_ps)
                                                : take_step(channel, step_ps);
}

PackedRules::Outcome PackedRules::take_sync_chunk(unsigned channel, bool flag,
                                                  std::uint64_t payload) {
  if (channel != state_.sync_channel || flag) {
    drop_event_.sync_chunks_left = state_.sync_chunks_left;
    if (channel == state_.sync_channel) {
      return drop(LockEvent::Kind::overflow_in_sync, channel);
    }
    drop_event_.sync_channel = state_.sync_channel;
    return drop(LockEvent::Kind::sync_channel_mismatch, channel);
  }
  state_.sync_value |= payload << state_.sync_bits;  // lowest bits first
  state_.sync_bits += format_.bits;
  if (--state_.sync_chunks_left == 0) {
    complete_sync();
  }
  return Outcome::silent;
}

void PackedRules::complete_sync() {
  const std::optional<std::int64_t> last_ps = state_.channels[state_.sync_channel].last_time_ps;
  const std::uint64_t time_ps =
      ((state_.sync_value & kTickMask) << format_.quantum_shift) % kWrapPs;
  state_.pending_sync_channel = state_.sync_channel;
  state_.pending_sync_time_ps = last_ps ? format_.counter.placed_time(*last_ps, time_ps) : time_ps;
  state_.sync_value = 0;
  state_.sync_bits = 0;
}

/// The first data record after a sync counts from the synced time.
PackedRules::Outcome PackedRules::take_anchored(unsigned channel, std::uint64_t step_ps) {
  std::optional<std::int64_t>& last_ps = state_.channels[channel].last_time_ps;
  const std::uint64_t next_ps = step_ps + state_.pending_sync_time_ps;
  const auto signed_next_ps = static_cast<std::int64_t>(next_ps);
  if (last_ps) {
    const auto prev_ps = static_cast<std::uint64_t>(*last_ps);
    if (*last_ps < signed_next_ps) {
      if (format_.internal && next_ps - prev_ps > kInternalStepLimitPs) {
        return drop_sync_delta(channel, next_ps, prev_ps);
      }
    } else if (prev_ps - next_ps > kBackwardTolerancePs) {
      drop_event_.next_ps = static_cast<std::int64_t>(next_ps);
      drop_event_.prev_ps = static_cast<std::int64_t>(prev_ps);
      return drop(LockEvent::Kind::nonmonotonic_sync, channel);
    } else if (prev_ps == next_ps || format_.internal) {
      return drop_sync_delta(channel, next_ps, prev_ps);
    }
  }
  last_ps = signed_next_ps;
  state_.pending_sync_channel = PackedFormat::kNoChannel;
  state_.pending_sync_time_ps = 0;
  return Outcome::tag;
}

PackedRules::Outcome PackedRules::take_step(unsigned channel, std::uint64_t step_ps) {
  std::optional<std::int64_t>& last_ps = state_.channels[channel].last_time_ps;
  if (!last_ps) {
    return Outcome::silent;
  }
  const auto prev_ps = static_cast<std::uint64_t>(*last_ps);
  const std::uint64_t period_ps = format_.counter.period_ps;
  if (step_ps > period_ps / 2 && step_ps <= period_ps &&
      period_ps - step_ps <= kBackwardTolerancePs) {
    last_ps = static_cast<std::int64_t>(prev_ps + step_ps - period_ps);  // a small step back
    return Outcome::tag;
  }
  step_ps = format_.counter.corrected_step(*last_ps, step_ps);
  if (format_.internal && step_ps > kInternalStepLimitPs) {
    drop_event_.delta_ps = static_cast<std::int64_t>(step_ps);
    drop_event_.prev_ps = static_cast<std::int64_t>(prev_ps);
    return drop(LockEvent::Kind::implausible_delta, channel);
  }
  last_ps = static_cast<std::int64_t>(prev_ps + step_ps);
  return Outcome::tag;
}

PackedRules::Outcome PackedRules::drop_sync_delta(unsigned channel, std::uint64_t next_ps,
                                                  std::uint64_t prev_ps) {
  drop_event_.delta_ps = static_cast<std::int64_t>(next_ps - prev_ps);
  drop_event_.next_ps = static_cast<std::int64_t>(next_ps);
  drop_event_.prev_ps = static_cast<std::int64_t>(prev_ps);
  return drop(LockEvent::Kind::implausible_sync_delta, channel);
}

PackedRules::Outcome PackedRules::drop(LockEvent::Kind kind, unsigned channel) {
  drop_event_.kind = kind;
  drop_event_.channel = channel;
  return Outcome::drop;
}

}  // namespace orvo::timing::detail
