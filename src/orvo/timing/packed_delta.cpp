// Batches of packed-delta records: taking the alignment lock, judging it, losing it.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "orvo/timing/packed/alignment.h"
#include "orvo/timing/packed/records.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {
namespace {

constexpr std::size_t kSearchedBytes = 65'536;   // of a buffer without a lock, at the most
constexpr std::size_t kKeptBytes = 4'096;        // when such a buffer is given up
constexpr std::size_t kReportedBytes = 4'096;    // less may simply not be enough for a lock
constexpr std::uint64_t kMinJudgedTags = 4'096;  // in a batch
constexpr std::uint64_t kMaxImbalance = 8;       // most to least active channel

LockEvent lock_event(LockEvent::Kind kind) {
  LockEvent event{};
  event.kind = kind;
  return event;
}

LockEvent rejection(const detail::AlignmentCandidate& candidate) {
  LockEvent event = lock_event(LockEvent::Kind::rejected_alignment);
  event.drop_bytes = candidate.drop_bytes;
  event.bit_offset = candidate.bit_offset;
  event.synced = candidate.synced;
  event.min = candidate.min;
  event.max = candidate.max;
  event.total = candidate.total;
  return event;
}

/// Set when the lock is false: one alignment syncs every channel of the calibration source, and
/// then all of them carry the same rate.
std::optional<LockEvent> imbalance(const detail::PackedBatch& batch,
                                   const detail::PackedFormat& format) {
  LockEvent event = lock_event(LockEvent::Kind::imbalanced);
  event.min = UINT64_MAX;
  for (unsigned c = 0; c < 4; ++c) {
    if (format.active(c)) {
      event.min = std::min(event.min, batch.channel_tags[c]);
      event.max = std::max(event.max, batch.channel_tags[c]);
      event.total += batch.channel_tags[c];
    }
  }
  event.records = batch.records;
  const bool judged = format.balanced && event.total >= kMinJudgedTags;
  return judged && event.min * kMaxImbalance < event.max ? std::optional(event) : std::nullopt;
}

}  // namespace

std::span<const TimeTag> StreamDecoder::feed_packed_delta() {
  lock_events_.clear();
  if (!packed_format_.valid() || !(locked_ || take_packed_lock())) {
    return {};
  }
  const std::uint64_t bits = 8 * std::uint64_t{input_buffer.size()};
  const std::uint64_t records =
      bits < bit_offset_ ? 0 : (bits - bit_offset_) / packed_format_.width;
  if (records == 0) {
    return {};
  }
  TimeTag* const tags = tags_.room_for(records);
  const detail::PackedBatch batch =
      detail::decode_packed_records(input_buffer.data(), bit_offset_, records, packed_format_,
                                    packed_, packed_groups_.get(), tags);

  consume_packed_records(batch.records);
  if (batch.drop) {
    packed_tags_ += batch.tags;
    drop_packed_lock();
    report(*batch.drop);
  } else if (const auto event = imbalance(batch, packed_format_)) {
    drop_packed_lock();
    report(*event);
    return {};
  } else {
    packed_tags_ += batch.tags;
  }
  return tags_.first(batch.tags);
}

bool StreamDecoder::take_packed_lock() {
  const detail::AlignmentSearch search =
      detail::probe_packed_alignment(input_buffer.bytes(), packed_format_);
  if (!search.found) {
    if (search.rejected) {
      report(rejection(*search.rejected));
    }
    if (input_buffer.size() >= kReportedBytes) {
      LockEvent event = lock_event(LockEvent::Kind::no_alignment);
      event.buffer_bytes = input_buffer.size();
      if (input_buffer.size() > kSearchedBytes) {
        event.drop_bytes = input_buffer.size() - kKeptBytes;
        input_buffer.keep_back(kKeptBytes);
        bit_offset_ = 0;
      }
      report(event);
    }
    return false;
  }
  input_buffer.remove_front(search.found->drop_bytes);
  locked_ = true;
  bit_offset_ = search.found->bit_offset;
  LockEvent event = lock_event(LockEvent::Kind::locked);
  event.drop_bytes = search.found->drop_bytes;
  event.bit_offset = bit_offset_;
  event.buffer_bytes = input_buffer.size();
  report(event);
  return true;
}

void StreamDecoder::consume_packed_records(std::uint64_t count) {
  const std::uint64_t position = packed_format_.width * count + bit_offset_;
  bit_offset_ = position % 8;
  input_buffer.remove_front(position / 8);
}

/// What was consumed is gone and the sub-byte position forgotten: the next batch searches again
/// from the front of what is left.
void StreamDecoder::drop_packed_lock() {
  locked_ = false;
  bit_offset_ = 0;
  packed_ = {};
}

void StreamDecoder::report(LockEvent event) {
  event.payload_offset_bytes = input_buffer.removed();
  event.tags_before = packed_tags_;
  lock_events_.push_back(event);
  if (std::getenv("ORVO_PACKED_DEBUG") == nullptr || debug_lines_ >= kMaxDebugLines) {
    return;
  }
  ++debug_lines_;
  std::cerr << "packed-decoder: " + describe(event, header_) + '\n';
}

}  // namespace orvo::timing
