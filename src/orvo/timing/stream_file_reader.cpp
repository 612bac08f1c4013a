#include <algorithm>

#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"

namespace orvo::timing {
namespace {

/// Of files from before the container had its present name; otherwise the same.
constexpr std::array<char, 8> kLegacyMagic = {'O', 'T', 'S', 'T', 'R', 'M', '1', '\n'};

/// A header is read in pieces, from this size on and doubling, so that a damaged length cannot ask
/// for much more memory than the file has bytes.
constexpr std::size_t kHeaderPieceBytes = 1 << 16;

/// A chunk is read in pieces of this size, so that a chunk larger than the file costs no more
/// memory than the file.
constexpr std::uint64_t kPieceBytes = 16 << 20;
/// Most tags for which room is reserved before one is there.
constexpr std::uint64_t kReservedTags = 65'536;

std::uint32_t little_endian(const std::array<char, 4>& bytes) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    value |= std::uint32_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
  }
  return value;
}

std::string read_header_text(std::ifstream& file, std::size_t length) {
  std::string text;
  while (text.size() < length) {
    const std::size_t used = text.size();
    text.resize(std::min(length, used + std::max(used, kHeaderPieceBytes)));
    if (!file.read(text.data() + used, static_cast<std::streamsize>(text.size() - used))) {
      throw Error(OT_ERR_IO, "StreamFileReader: truncated JSON header");
    }
  }
  return text;
}

}  // namespace

void StreamFileReader::open(const std::string& path) {
  close();
  pending_ = {};
  decoder_.reset();
  header_ = {};
  payload_start_bytes_ = 0;
  payload_read_bytes_ = 0;
  file_.open(path, std::ios::in | std::ios::binary);
  if (!file_) {
    throw Error(OT_ERR_IO, "StreamFileReader: cannot open " + path);
  }
  try {
    read_header();
  } catch (...) {
    close();
    throw;
  }
  usable_ = true;
}

void StreamFileReader::read_header() {
  std::array<char, 8> magic;
  if (!file_.read(magic.data(), magic.size())) {
    throw Error(OT_ERR_IO, "StreamFileReader: truncated magic");
  }
  if (magic != kStreamFileMagic && magic != kLegacyMagic) {
    throw Error(OT_ERR_FORMAT, "StreamFileReader: not an Orvo timing stream file");
  }
  std::array<char, 4> length;
  if (!file_.read(length.data(), length.size())) {
    throw Error(OT_ERR_IO, "stream file: truncated header length");
  }
  const std::uint32_t header_bytes = little_endian(length);
  header_ = detail::stream_header_from_json(read_header_text(file_, header_bytes));
  payload_start_bytes_ = magic.size() + length.size() + std::uint64_t{header_bytes};
}

void StreamFileReader::close() noexcept {
  usable_ = false;
  if (file_.is_open()) {
    file_.close();
  }
}

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
    payload_read_bytes_ += count;
    if (decoder_->decodes()) {  // otherwise the bytes would only pile up
      input.commit(count);
    }
  } while (total < chunk_bytes && file_);
  file_.clear();  // a short last read is normal, and reading on after the end is allowed
  if (total == 0) {
    return false;
  }
  pending_ = decoder_->feed();
  if (on_lock_event) {
    for (const LockEvent& event : decoder_->lock_events()) {
      on_lock_event(event);
    }
  }
  return true;
}

}  // namespace orvo::timing
