#include "orvo/timing/packed/record_grid.h"

#include <algorithm>

#include "orvo/timing/packed/record_counts.h"

namespace orvo::timing::detail {

SyncEnd end_of_sync(std::uint64_t position, const SearchedBits& searched) {
  const PackedFormat& format = searched.format;
  const unsigned width = format.width;
  const unsigned channel = record_kind(searched.bits.from(position)) / 2;
  const std::uint64_t whole = position + (format.sync_records + std::uint64_t{1}) * width;
  for (std::uint64_t stop = position + width; stop != whole; stop += width) {
    if (stop + width > searched.end) {
      return {SyncEnd::Kind::unfinished, channel, stop};
    }
    const std::uint64_t record = searched.bits.from(stop);
    if (record_kind(record) != data_kind(channel)) {
      const bool by_start = is_sync_start(record, format);
      return {by_start ? SyncEnd::Kind::broken_by_start : SyncEnd::Kind::broken, channel, stop};
    }
  }
  return {SyncEnd::Kind::whole, channel, whole};
}

void RecordGrid::meet_sync_start(std::uint64_t position, const SearchedBits& searched) {
  const SyncEnd end = end_of_sync(position, searched);
  switch (end.kind) {
    case SyncEnd::Kind::whole:
    case SyncEnd::Kind::unfinished:
      put_sync_in_front(position, end, searched);
      break;
    case SyncEnd::Kind::broken_by_start:
      // By the nearest, which is none to this parse: it goes on behind it.
      pass_sync_start();
      reset_at(end.position, searched.format.width);
      break;
    case SyncEnd::Kind::broken:
      // The parse waits for the nearest sync start again. With that reset later, both outcomes
      // are one from here on.
      settled_ = outcome().was_reset();
      outcomes_[1 - from_next_] = outcome();
      reset_at(end.position, searched.format.width);
      break;
  }
  next_start_ = position;
}

void RecordGrid::meet_inactive(std::uint64_t position, unsigned width) {
  reset_at(position, width);
  settled_ = true;
}

/// The record at `position` resets a parse; a later reset hides it.
void RecordGrid::reset_at(std::uint64_t position, unsigned width) {
  AlignmentParse& parse = outcomes_[from_next_];
  if (!parse.was_reset()) {
    parse.restart = position + width;
  }
}

void RecordGrid::put_sync_in_front(std::uint64_t position, const SyncEnd& end,
                                   const SearchedBits& searched) {
  AlignmentParse& parse = outcomes_[from_next_];
  outcomes_[1 - from_next_] = parse;
  if (parse.was_reset()) {
    settled_ = true;  // what is in front of a reset is forgotten
  } else if (end.kind == SyncEnd::Kind::whole) {
    count_behind_sync(end, searched);
  } else {
    const std::uint64_t seen = (end.position - position) / searched.format.width - 1;
    parse.sync_records_left = searched.format.sync_records - static_cast<unsigned>(seen);
    parse.sync_channel = end.channel;
  }
}

void RecordGrid::count_behind_sync(const SyncEnd& sync, const SearchedBits& searched) {
  AlignmentParse& parse = outcomes_[from_next_];
  const unsigned width = searched.format.width;
  const std::uint64_t stop = std::min(next_start_, searched.end);
  const auto counts =
      count_data_records(searched.bits, sync.position, (stop - sync.position) / width, width);
  for (unsigned c = 0; c < 4; ++c) {
    data_[c] += counts[c];
  }
  // Only a record before the next sync is anchored to this one; then all later ones count.
  const bool anchors = counts[sync.channel] > 0;
  if (anchors) {
    parse.counts[sync.channel] = data_[sync.channel];
  }
  // The last sync that is whole decides, however many payloads of another follow.
  if (!has_sync_ && !anchors) {
    parse.pending_channel = sync.channel;
  }
  has_sync_ = true;
}

}  // namespace orvo::timing::detail
