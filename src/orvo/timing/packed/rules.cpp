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
    return lose(LockEvent::Kind::inactive_channel, channel);
  }
  if (state_.sync_records_left > 0) {
    return take_sync_record(channel, flag, payload);
  }
  std::uint64_t& overflow = state_.channels[channel].overflow;
  if (flag) {
    if (payload == format_.all_ones) {
      state_.sync_records_left = format_.sync_records;
      state_.sync_channel = channel;
      state_.sync_value = 0;
      state_.sync_bits = 0;
      overflow = 0;
    } else {
      overflow += payload;
    }
    return Outcome::silent;
  }
  const std::uint64_t step = ((overflow << format_.bits) + payload) << format_.quantum_shift;
  overflow = 0;
  return channel == state_.pending_sync_channel ? take_anchored(channel, step)
                                                : take_step(channel, step);
}

PackedRules::Outcome PackedRules::take_sync_record(unsigned channel, bool flag,
                                                   std::uint64_t payload) {
  if (channel != state_.sync_channel) {
    return lose(LockEvent::Kind::sync_channel_mismatch, channel);
  }
  if (flag) {
    return lose(LockEvent::Kind::overflow_in_sync, channel);
  }
  state_.sync_value |= payload << state_.sync_bits;  // lowest bits first
  state_.sync_bits += format_.bits;
  if (--state_.sync_records_left == 0) {
    complete_sync();
  }
  return Outcome::silent;
}

void PackedRules::complete_sync() {
  const PackedState::Channel& channel = state_.channels[state_.sync_channel];
  const std::uint64_t time_ps =
      ((state_.sync_value & kTickMask) << format_.quantum_shift) % kWrapPs;
  state_.pending_sync_channel = state_.sync_channel;
  state_.pending_sync_time_ps =
      channel.timed ? format_.counter.placed_time(channel.last_time_ps, time_ps) : time_ps;
  state_.sync_value = 0;
  state_.sync_bits = 0;
}

/// The first data record behind a sync counts from the synced time.
PackedRules::Outcome PackedRules::take_anchored(unsigned channel, std::uint64_t step) {
  PackedState::Channel& state = state_.channels[channel];
  const std::uint64_t next = step + state_.pending_sync_time_ps;
  if (state.timed) {
    const auto prev = static_cast<std::uint64_t>(state.last_time_ps);
    if (state.last_time_ps < static_cast<std::int64_t>(next)) {
      if (format_.internal && next - prev > kInternalStepLimitPs) {
        return lose_sync_delta(channel, next, prev);
      }
    } else if (prev - next > kBackwardTolerancePs) {
      drop_.next_ps = static_cast<std::int64_t>(next);
      drop_.prev_ps = static_cast<std::int64_t>(prev);
      return lose(LockEvent::Kind::nonmonotonic_sync, channel);
    } else if (prev == next || format_.internal) {
      return lose_sync_delta(channel, next, prev);
    }
  }
  state.last_time_ps = static_cast<std::int64_t>(next);
  state.timed = true;
  state_.pending_sync_channel = PackedState::kNoChannel;
  state_.pending_sync_time_ps = 0;
  return Outcome::tag;
}

PackedRules::Outcome PackedRules::take_step(unsigned channel, std::uint64_t step) {
  PackedState::Channel& state = state_.channels[channel];
  if (!state.timed) {
    return Outcome::silent;
  }
  const auto prev = static_cast<std::uint64_t>(state.last_time_ps);
  const auto advance = [&](std::uint64_t by) {
    state.last_time_ps = static_cast<std::int64_t>(prev + by);
    return Outcome::tag;
  };

  const std::uint64_t period_ps = format_.counter.period_ps;
  if (step > period_ps / 2 && step <= period_ps && period_ps - step <= kBackwardTolerancePs) {
    return advance(step - period_ps);  // a small step back, modulo 2^64
  }
  step = format_.counter.corrected_step(state.last_time_ps, step);
  if (format_.internal && step > kInternalStepLimitPs) {
    drop_.delta_ps = static_cast<std::int64_t>(step);
    drop_.prev_ps = static_cast<std::int64_t>(prev);
    return lose(LockEvent::Kind::implausible_delta, channel);
  }
  return advance(step);
}

PackedRules::Outcome PackedRules::lose_sync_delta(unsigned channel, std::uint64_t next,
                                                  std::uint64_t prev) {
  drop_.delta_ps = static_cast<std::int64_t>(next - prev);
  drop_.next_ps = static_cast<std::int64_t>(next);
  drop_.prev_ps = static_cast<std::int64_t>(prev);
  return lose(LockEvent::Kind::implausible_sync_delta, channel);
}

PackedRules::Outcome PackedRules::lose(LockEvent::Kind kind, unsigned channel) {
  drop_.kind = kind;
  drop_.channel = channel;
  drop_.sync_channel = state_.sync_channel;
  drop_.sync_chunks_left = state_.sync_records_left;
  return Outcome::drop;
}

}  // namespace orvo::timing::detail
