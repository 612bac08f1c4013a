#include "orvo/timing/packed/packed_delta.h"

#include <cstdlib>
#include <iostream>
#include <optional>

#include "orvo/timing/packed/record_groups.h"
#include "orvo/timing/packed/records.h"

namespace orvo::timing {
namespace {

constexpr unsigned kMaxDebugLines = 200;  // of one decoder

LockEvent rejection(const detail::Alignment& alignment) {
  return {.kind = LockEvent::Kind::rejected_alignment,
          .drop_bytes = alignment.drop_bytes,
          .bit_offset = alignment.bit_offset,
          .synced = alignment.data.present,
          .min = alignment.data.min,
          .max = alignment.data.max,
          .total = alignment.data.total};
}

/// Set when the lock is false: one alignment syncs every channel of the calibration source, and
/// then all of them carry the same rate.
std::optional<LockEvent> imbalance(const detail::PackedBatch& batch,
                                   const detail::PackedFormat& format) {
  const detail::ChannelTally tags(batch.channel_tags, format);
  if (!format.balanced || tags.total < detail::kMinJudgedTags ||
      tags.min * detail::kMaxBatchImbalance >= tags.max) {
    return std::nullopt;
  }
  return LockEvent{.kind = LockEvent::Kind::imbalanced,
                   .min = tags.min,
                   .max = tags.max,
                   .total = tags.total,
                   .records = batch.records};
}

}  // namespace

PackedDeltaDecoder::PackedDeltaDecoder(const StreamFileHeader& header)
    : header_(header), format_(header), groups_(detail::RecordGroups::make(format_)) {}

PackedDeltaDecoder::~PackedDeltaDecoder() = default;

std::span<const TimeTag> PackedDeltaDecoder::feed() {
  lock_events_.clear();
  if (!locked_ && !take_lock()) {
    return {};
  }
  const std::uint64_t bits = 8 * std::uint64_t{input_.size()};
  const std::uint64_t records = bits < bit_offset_ ? 0 : (bits - bit_offset_) / format_.width;
  if (records == 0) {
    return {};
  }
  const detail::PackedBatch batch = detail::decode_packed_records(
      input_.data(), bit_offset_, records, format_, state_, groups_.get(), tags_.room_for(records));
  consume_packed_records(batch.records);
  std::optional<LockEvent> drop = batch.drop;
  std::size_t tags = batch.tags;
  if (!drop) {
    drop = imbalance(batch, format_);
    tags = drop ? 0 : tags;
  }
  returned_tags_ += tags;
  if (drop) {
    drop_packed_lock();
    report(*drop);
  }
  return tags_.first(tags);
}

bool PackedDeltaDecoder::take_lock() {
  const std::optional<detail::Alignment> best = detail::probe_packed_alignment(input_, format_);
  if (best && best->accepted) {
    input_.remove_front(best->drop_bytes);
    locked_ = true;
    bit_offset_ = best->bit_offset;
    report({.kind = LockEvent::Kind::locked,
            .drop_bytes = best->drop_bytes,
            .bit_offset = bit_offset_,
            .buffer_bytes = input_.size()});
    return true;
  }
  if (best) {
    report(rejection(*best));
  }
  if (input_.size() >= detail::kReportedBytes) {
    LockEvent event{.kind = LockEvent::Kind::no_alignment, .buffer_bytes = input_.size()};
    if (input_.size() > detail::kSearchedBytes) {
      event.drop_bytes = input_.size() - detail::kKeptBytes;
      input_.keep_back(detail::kKeptBytes);
    }
    report(event);
  }
  return false;
}

void PackedDeltaDecoder::consume_packed_records(std::uint64_t count) {
  const std::uint64_t position = format_.width * count + bit_offset_;
  bit_offset_ = position % 8;
  input_.remove_front(position / 8);
}

/// The sub-byte position is forgotten: the next batch searches from the front of what is left.
void PackedDeltaDecoder::drop_packed_lock() {
  locked_ = false;
  bit_offset_ = 0;
  state_ = {};
}

void PackedDeltaDecoder::report(LockEvent event) {
  event.payload_offset_bytes = input_.removed();
  event.tags_before = returned_tags_;
  lock_events_.push_back(event);
  packed_debug_log(event);
}

void PackedDeltaDecoder::packed_debug_log(const LockEvent& event) {
  if (std::getenv("ORVO_PACKED_DEBUG") == nullptr || debug_lines_ >= kMaxDebugLines) {
    return;
  }
  ++debug_lines_;
  std::cerr << "packed-decoder: " + describe(event, header_) + '\n';
}

}  // namespace orvo::timing
