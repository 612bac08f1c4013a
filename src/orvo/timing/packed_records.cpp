#include "orvo/timing/packed_records.h"

#include <algorithm>

#include "orvo/timing/big_endian.h"
#include "orvo/timing/instrument_time.h"
#include "orvo/timing/packed_rules.h"

namespace orvo::timing::detail {
namespace {

/// One channel as the fast loop sees it. The two bounds fold every question that the rules ask of
/// an ordinary record into one comparison; 0 leaves all of a channel's records to the rules.
struct Lane {
  std::uint64_t overflow;
  std::uint64_t time_ps;
  std::uint64_t step_bound_ps;   // a data record's step below this is taken as it is
  std::uint64_t overflow_bound;  // a flagged payload below this only adds up
  std::uint64_t tags;
};

/// Up to this step none of the corrections and limits of the rules can apply.
std::uint64_t plain_step_ps(const PackedFormat& format) {
  const std::uint64_t limit = std::min(format.wrap_excess_ps, format.period_ps / 2);
  return format.internal ? std::min(limit, kInternalStepLimitPs) : limit;
}

void load_lanes(const PackedFormat& format, const PackedState& state, Lane (&lanes)[4]) {
  for (unsigned c = 0; c < 4; ++c) {
    const PackedState::Channel& channel = state.channels[c];
    const bool plain = format.active(c) && state.sync_records_left == 0;
    lanes[c].overflow = channel.overflow;
    lanes[c].time_ps = static_cast<std::uint64_t>(channel.last_time_ps);
    lanes[c].step_bound_ps =
        plain && channel.timed && c != state.pending_sync_channel ? plain_step_ps(format) + 1 : 0;
    lanes[c].overflow_bound = plain ? format.all_ones : 0;
  }
}

void store_lanes(const Lane (&lanes)[4], PackedState& state) {
  for (unsigned c = 0; c < 4; ++c) {
    state.channels[c].overflow = lanes[c].overflow;
    state.channels[c].last_time_ps = static_cast<std::int64_t>(lanes[c].time_ps);
  }
}

/// `kBits` is the payload width, known to the compiler, or 0 for any.
template <unsigned kBits>
PackedBatch decode(const std::uint8_t* data, std::uint64_t bit_offset, std::uint64_t records,
                   const PackedFormat& format, PackedState& state, TimeTag* const tags) {
  const unsigned bits = kBits > 0 ? kBits : format.bits;
  const unsigned width = bits + 3;
  const std::uint64_t all_ones = (std::uint64_t{1} << bits) - 1;
  const unsigned shift = format.quantum_shift;

  PackedRules rules(format, state);
  PackedBatch batch;
  Lane lanes[4] = {};
  load_lanes(format, state, lanes);
  TimeTag* end = tags;
  std::uint64_t position = bit_offset;
  for (std::uint64_t i = 0; i < records; ++i, position += width) {
    const std::uint64_t record = record_at(data, position, width);
    const auto channel = static_cast<unsigned>(record >> (bits + 1));
    const std::uint64_t payload = record & all_ones;
    Lane& lane = lanes[channel];
    if ((record >> bits & 1) == 0) {
      const std::uint64_t step = ((lane.overflow << bits) + payload) << shift;
      if (step < lane.step_bound_ps) [[likely]] {
        lane.overflow = 0;
        lane.time_ps += step;
        ++lane.tags;
        *end++ = {static_cast<std::uint8_t>(channel), static_cast<std::int64_t>(lane.time_ps)};
        continue;
      }
    } else if (payload < lane.overflow_bound) [[likely]] {
      lane.overflow += payload;
      continue;
    }

    store_lanes(lanes, state);
    const PackedRules::Outcome outcome = rules.take(record);
    if (outcome == PackedRules::Outcome::drop) {
      batch.drop = rules.drop();
      batch.drop->record = i;
      batch.drop->records = records;
      records = i + 1;
      break;
    }
    load_lanes(format, state, lanes);
    if (outcome == PackedRules::Outcome::tag) {
      ++lane.tags;
      *end++ = {static_cast<std::uint8_t>(channel), static_cast<std::int64_t>(lane.time_ps)};
    }
  }
  store_lanes(lanes, state);
  batch.records = records;
  batch.tags = static_cast<std::size_t>(end - tags);
  for (unsigned c = 0; c < 4; ++c) {
    batch.channel_tags[c] = lanes[c].tags;
  }
  return batch;
}

}  // namespace

PackedBatch decode_packed_records(const std::uint8_t* data, std::uint64_t bit_offset,
                                  std::uint64_t records, const PackedFormat& format,
                                  PackedState& state, TimeTag* tags) {
  switch (format.bits) {
    case 8:
      return decode<8>(data, bit_offset, records, format, state, tags);
    case 16:
      return decode<16>(data, bit_offset, records, format, state, tags);
    case 24:
      return decode<24>(data, bit_offset, records, format, state, tags);
    default:
      return decode<0>(data, bit_offset, records, format, state, tags);
  }
}

}  // namespace orvo::timing::detail
