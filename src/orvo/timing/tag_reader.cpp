// Reading a stream file as timestamps: chunks of payload in, batches of tags out.

#include <algorithm>

#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"

namespace orvo::timing {
namespace {

/// A chunk is read in pieces of this size, so that a chunk larger than the file costs no more
/// memory than the file.
constexpr std::uint64_t kPieceBytes = 16 << 20;
/// Most tags for which room is reserved before one is there.
constexpr std::uint64_t kReservedTags = 65'536;

}  // namespace

std::vector<TimeTag> StreamFileReader::decode_next_tags(unsigned long max_tags,
                                                        unsigned long chunk_bytes) {
  std::vector<TimeTag> tags;
  tags.reserve(std::min<std::uint64_t>(max_tags, kReservedTags));
  while (tags.size() < max_tags) {
    const std::span<const TimeTag> next = next_tags(max_tags - tags.size(), chunk_bytes);
    if (next.empty()) {
      break;
    }
    tags.insert(tags.end(), next.begin(), next.end());
  }
  return tags;
}

std::span<const TimeTag> StreamFileReader::next_tags(std::uint64_t max_tags,
                                                     std::uint64_t chunk_bytes) {
  if (max_tags == 0) {
    return {};
  }
  while (pending_.empty() && decode_chunk(std::max<std::uint64_t>(chunk_bytes, 1))) {
  }
  return take_pending(max_tags);
}

std::span<const TimeTag> StreamFileReader::take_pending(std::uint64_t max_tags) noexcept {
  const std::span<const TimeTag> taken =
      pending_.first(static_cast<std::size_t>(std::min<std::uint64_t>(max_tags, pending_.size())));
  pending_ = pending_.subspan(taken.size());
  return taken;
}

/// Reads and decodes one chunk; false at the end of the payload.
bool StreamFileReader::decode_chunk(std::uint64_t chunk_bytes) {
  if (!usable_) {
    throw Error(OT_ERR_NOT_OPEN, "StreamFileReader: not open");
  }
  if (interrupted != nullptr && interrupted()) {
    throw Interrupted();
  }
  if (decoder_ == nullptr) {
    decoder_ = std::make_unique<StreamDecoder>(header_);
    decoder_->on_lock_event = on_lock_event;
  }
  detail::InputBuffer& input = decoder_->input_buffer;
  std::uint64_t total = 0;
  do {
    const std::uint64_t piece = std::min(chunk_bytes - total, kPieceBytes);
    const std::span<std::uint8_t> room = input.prepare(static_cast<std::size_t>(piece));
    file_.read(reinterpret_cast<char*>(room.data()), static_cast<std::streamsize>(piece));
    if (file_.bad()) {
      throw Error(OT_ERR_IO, "StreamFileReader: payload read failed");
    }
    const auto count = static_cast<std::size_t>(file_.gcount());
    total += count;
    if (decoder_->decodes()) {  // otherwise the bytes would only pile up
      input.commit(count);
    }
  } while (total < chunk_bytes && file_);
  file_.clear();  // a short last read is normal, and reading on after the end is allowed
  if (total == 0) {
    return false;
  }
  pending_ = decoder_->feed();
  return true;
}

}  // namespace orvo::timing
