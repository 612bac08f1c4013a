#include "orvo/timing/packed/records.h"

#include <algorithm>

#include "orvo/timing/byte_order.h"
#include "orvo/timing/instrument_time.h"
#include "orvo/timing/packed/record_groups.h"
#include "orvo/timing/packed/rules.h"

namespace orvo::timing::detail {
namespace {

/// Below this step none of the corrections and limits of the rules can apply.
std::uint64_t ordinary_bound_ps(const PackedFormat& format) {
  const std::uint64_t limit_ps =
      std::min(format.counter.wrap_excess_ps, format.counter.period_ps / 2);
  return 1 + (format.internal ? std::min(limit_ps, kInternalStepLimitPs) : limit_ps);
}

void load_lanes(const PackedFormat& format, const PackedState& state, PackedLanes& lanes) {
  for (unsigned c = 0; c < kChannels; ++c) {
    const PackedState::Channel& channel = state.channels[c];
    const bool for_rules = !format.active(c) || state.sync_chunks_left > 0;
    const bool timed = channel.last_time_ps.has_value();
    const std::uint64_t step_bound_ps = timed ? ordinary_bound_ps(format) : UINT64_MAX;
    lanes.time_ps[c] = static_cast<std::uint64_t>(channel.last_time_ps.value_or(0));
    lanes.overflow[c] = channel.overflow;
    lanes.overflow_bound[c] = for_rules ? 0 : format.all_ones;
    lanes.full_step_bound_ps[c] = for_rules || c == state.pending_sync_channel ? 0 : step_bound_ps;
    lanes.step_bound_ps[c] = channel.overflow == 0 ? lanes.full_step_bound_ps[c] : 0;
    lanes.tag_bytes[c] = timed ? sizeof(TimeTag) : 0;
  }
}

void store_lanes(PackedLanes& lanes, PackedState& state) {
  for (unsigned c = 0; c < kChannels; ++c) {
    PackedState::Channel& channel = state.channels[c];
    channel.overflow = lanes.overflow[c];
    if (channel.last_time_ps) {
      channel.last_time_ps = static_cast<std::int64_t>(lanes.time_ps[c]);
    } else {
      lanes.tags[c] = 0;
    }
  }
}

/// Decodes records up to the first that the lanes leave to the rules. `kBits` is the payload width,
/// known to the compiler, or 0 for any.
template <unsigned kBits>
void take_ordinary_records(PackedCursor& cursor, const PackedFormat& format, PackedLanes& lanes) {
  const unsigned bits = kBits > 0 ? kBits : format.bits;
  const unsigned width = bits + 3;
  const std::uint64_t all_ones = (std::uint64_t{1} << bits) - 1;
  const std::uint64_t tick_ps = std::uint64_t{1} << format.quantum_shift;
  const std::uint8_t* const data = cursor.data;
  const std::uint64_t stop = cursor.stop;
  std::uint64_t position = cursor.position;
  TimeTag* end = cursor.end;

  const auto emit = [&](unsigned channel, std::uint64_t step_ps) {
    lanes.time_ps[channel] += step_ps;
    ++lanes.tags[channel];
    *end = {static_cast<std::uint8_t>(channel), static_cast<std::int64_t>(lanes.time_ps[channel])};
    end = reinterpret_cast<TimeTag*>(reinterpret_cast<std::byte*>(end) + lanes.tag_bytes[channel]);
  };

  // Two records lie in one word wherever they begin, unless they are wide.
  constexpr bool kPairInWord = kBits > 0 && 2 * (kBits + 3) + 7 <= 64;

  while (position < stop) {
    const std::uint64_t word = load_big_endian_64(data + position / 8) << (position % 8);
    const std::uint64_t record = word >> (64 - width);
    const auto channel = static_cast<unsigned>(record >> (bits + 1));
    const std::uint64_t payload = record & all_ones;
    if ((record >> bits & 1) == 0) {
      const std::uint64_t step_ps = payload * tick_ps;
      if (step_ps < lanes.step_bound_ps[channel]) [[likely]] {
        emit(channel, step_ps);
      } else {
        const std::uint64_t full_step_ps = ((lanes.overflow[channel] << bits) + payload) * tick_ps;
        if (full_step_ps >= lanes.full_step_bound_ps[channel]) {
          break;
        }
        lanes.overflow[channel] = 0;
        lanes.step_bound_ps[channel] = lanes.full_step_bound_ps[channel];
        emit(channel, full_step_ps);
      }
    } else if (payload < lanes.overflow_bound[channel]) {
      // Nearly always the channel's data record is next: both at once, without the lane's overflow.
      const std::uint64_t next =
          kPairInWord ? word << width >> (64 - width) : record_at(data, position + width, width);
      const std::uint64_t step_ps = ((payload << bits) + (next & all_ones)) * tick_ps;
      if ((record ^ next) >> bits == 1 && step_ps < lanes.step_bound_ps[channel] &&
          position + width < stop) [[likely]] {
        emit(channel, step_ps);
        position += width;
      } else {
        lanes.overflow[channel] += payload;
        lanes.step_bound_ps[channel] = 0;
      }
    } else {
      break;
    }
    position += width;
  }
  cursor.position = position;
  cursor.end = end;
}

/// Gives the rules the next record and, if it belongs to a sync, the rest of the sync with the
/// data record that follows. False: the lock is lost.
[[nodiscard]] bool follow_rules(PackedCursor& cursor, PackedRules& rules,
                                const PackedFormat& format, const PackedState& state,
                                PackedLanes& lanes) {
  unsigned channel = 0;
  do {
    const std::uint64_t record = record_at(cursor.data, cursor.position, format.width);
    channel = static_cast<unsigned>(record >> (format.bits + 1));
    cursor.position += format.width;
    switch (rules.take(record)) {
      case PackedRules::Outcome::silent:
        break;
      case PackedRules::Outcome::tag:
        ++lanes.tags[channel];
        *cursor.end++ = {static_cast<std::uint8_t>(channel), *state.channels[channel].last_time_ps};
        break;
      case PackedRules::Outcome::drop:
        return false;
    }
  } while (cursor.position < cursor.stop &&
           (state.sync_chunks_left > 0 || state.pending_sync_channel == channel));
  return true;
}

template <unsigned kBits>
PackedBatch decode(PackedCursor cursor, const PackedFormat& format, PackedState& state,
                   RecordGroups* groups) {
  const PackedCursor start = cursor;
  PackedRules rules(format, state);
  PackedBatch batch;
  PackedLanes lanes = {};
  while (cursor.position < cursor.stop && !batch.drop) {
    load_lanes(format, state, lanes);
    if (groups != nullptr) {
      groups->take(cursor, lanes);
    }
    take_ordinary_records<kBits>(cursor, format, lanes);
    store_lanes(lanes, state);
    if (cursor.position < cursor.stop && !follow_rules(cursor, rules, format, state, lanes)) {
      batch.drop = rules.drop_event();
      batch.drop->record = (cursor.position - start.position) / format.width - 1;
      batch.drop->records = (start.stop - start.position) / format.width;
    }
  }
  batch.records = (cursor.position - start.position) / format.width;
  batch.tags = static_cast<std::size_t>(cursor.end - start.end);
  for (unsigned c = 0; c < kChannels; ++c) {
    batch.channel_tags[c] = lanes.tags[c];
  }
  return batch;
}

}  // namespace

PackedBatch decode_packed_records(const std::uint8_t* data, std::uint64_t bit_offset,
                                  std::uint64_t records, const PackedFormat& format,
                                  PackedState& state, RecordGroups* groups, TimeTag* tags) {
  if (groups != nullptr) {
    groups->begin_batch();
  }
  const PackedCursor cursor = {data, bit_offset, bit_offset + records * format.width, tags};
  switch (format.bits) {
    case 8:
      return decode<8>(cursor, format, state, groups);
    case 16:
      return decode<16>(cursor, format, state, groups);
    case 24:
      return decode<24>(cursor, format, state, groups);
    default:
      return decode<0>(cursor, format, state, groups);
  }
}

}  // namespace orvo::timing::detail
