#include "orvo/timing/packed/record_grid.h"

#include <algorithm>

namespace orvo::timing::detail {
namespace {

// Of the record at the top of a word.
unsigned channel_of(std::uint64_t record) { return static_cast<unsigned>(record >> 62); }
bool is_flagged(std::uint64_t record) { return (record >> 61 & 1) != 0; }
bool is_all_ones(std::uint64_t record, const PackedFormat& format) {
  return (record >> (64 - format.width) & format.all_ones) == format.all_ones;
}

/// Position after the payloads that begin at `begin`, at most `limit`.
std::uint64_t end_of_payloads(const BitView& bits, std::uint64_t begin, std::uint64_t limit,
                              unsigned channel, unsigned width) {
  std::uint64_t end = begin;
  while (end < limit && channel_of(bits.from(end)) == channel && !is_flagged(bits.from(end))) {
    end += width;
  }
  return end;
}

using KindCounts = std::array<std::uint32_t, 8>;  // by channel and flag

/// Counts the records from `begin` to `end`, two out of each word.
KindCounts count_kinds(const BitView& bits, std::uint64_t begin, std::uint64_t end,
                       std::uint64_t width) {
  KindCounts counts{};
  std::uint64_t position = begin;
  for (; position + width < end; position += 2 * width) {
    const std::uint64_t records = bits.from(position);
    ++counts[records >> 61];
    ++counts[records << width >> 61];
  }
  if (position < end) {
    ++counts[bits.from(position) >> 61];
  }
  return counts;
}

}  // namespace

void AlignmentParse::read_to(std::uint64_t end, const BitView& bits, const PackedFormat& format) {
  while (next + format.width <= end) {
    const std::uint64_t record = bits.from(next);
    next += format.width;
    take(record, format);
  }
}

void AlignmentParse::take(std::uint64_t record, const PackedFormat& format) {
  const unsigned channel = channel_of(record);
  const bool in_sync = sync_records_left > 0;
  if (!format.active(channel) || (in_sync && (channel != sync_channel || is_flagged(record)))) {
    *this = {.next = next, .restart = next};
  } else if (in_sync) {
    if (--sync_records_left == 0) {
      pending_channel = channel;
    }
  } else if (is_flagged(record)) {
    if (is_all_ones(record, format)) {
      sync_records_left = format.sync_records;
      sync_channel = channel;
    }
  } else if (pending_channel == channel) {
    ++counts[channel];
    pending_channel = kNoChannel;
  } else if (counts[channel] > 0) {
    ++counts[channel];
  }
}

RecordGrid::RecordGrid(const BitView& bits, const PackedFormat& format,
                       const TurningPoints& turning_points, unsigned grid, std::uint64_t end)
    : bits_(bits),
      format_(format),
      walk_(turning_points, grid),
      next_point_(walk_.next()),
      end_(end - (end - grid) % format.width),
      nearest_(end_) {
  outcomes_.fill({.next = end_});
}

const AlignmentParse& RecordGrid::outcome_from(std::uint64_t begin) {
  while (next_point_ >= static_cast<std::int64_t>(begin) && !settled()) {
    const auto position = static_cast<std::uint64_t>(next_point_);
    meet(position);
    nearest_ = position;
    next_point_ = walk_.next();
  }
  return from_nearest();
}

void RecordGrid::meet(std::uint64_t position) {
  const unsigned channel = channel_of(bits_.from(position));
  if (!format_.active(channel)) {
    reset_at(position);
    after_nearest() = from_nearest();
  } else if (position + format_.width == nearest_ && nearest_ != end_) {
    break_by_nearest();  // without a look at payloads: a run of ones is full of this
  } else {
    meet_sync_start(position, channel);
  }
}

void RecordGrid::meet_sync_start(std::uint64_t position, unsigned channel) {
  const std::uint64_t payloads = position + format_.width;
  const std::uint64_t whole = payloads + format_.sync_records * std::uint64_t{format_.width};
  const std::uint64_t end =
      end_of_payloads(bits_, payloads, std::min(whole, nearest_), channel, format_.width);
  if (end == nearest_ && end != whole && end != end_) {
    break_by_nearest();
    return;
  }
  after_nearest() = from_nearest();
  if (end == whole) {
    add_data(end, channel);
  } else if (end == end_) {
    from_nearest() = {.next = position};
    from_nearest().read_to(end_, bits_, format_);
  } else {
    reset_at(end);
  }
}

/// Adds the data records from bit `begin`, where a whole sync ends, to the nearest turning point.
void RecordGrid::add_data(std::uint64_t begin, unsigned channel) {
  AlignmentParse& parse = from_nearest();
  if (parse.was_reset()) {
    return;
  }
  const KindCounts kinds = count_kinds(bits_, begin, nearest_, format_.width);
  for (unsigned c = 0; c < 4; ++c) {
    data_[c] += kinds[2 * c];
  }
  // The sync anchors the first data record of its channel, but only before the next sync.
  if (kinds[2 * channel] > 0) {
    parse.counts[channel] = data_[channel];
  } else if (parse.pending_channel == AlignmentParse::kNoChannel &&
             parse.counts == std::array<std::uint32_t, 4>{}) {
    parse.pending_channel = channel;  // no sync follows
  }
}

}  // namespace orvo::timing::detail
