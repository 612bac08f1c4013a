#include "orvo/timing/stream_files.h"

#include <algorithm>
#include <utility>

#include "orvo/timing/byte_order.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {
namespace {

constexpr std::uint64_t kGatheredBytes = 1 << 20;  // most that one write to the system gathers
constexpr std::uint64_t kHeaderLimitBytes = std::uint64_t{1} << 32;  // its length has 32 bits

/// The magic of older files, which are otherwise the same.
constexpr std::array<char, 8> kLegacyMagic = {'O', 'T', 'S', 'T', 'R', 'M', '1', '\n'};
/// A header is read in pieces, from this size on and doubling, so that a damaged length cannot ask
/// for much more memory than the file has bytes.
constexpr std::size_t kHeaderPieceBytes = 1 << 16;
/// A chunk is read in pieces of this size, so that memory follows what the file holds, not what is
/// asked for.
constexpr std::uint64_t kPieceBytes = 16 << 20;
/// Upper limit on tags reserved in advance.
constexpr std::uint64_t kReservedTags = 65'536;

constexpr const char* kWriter = "StreamFileWriter";
constexpr const char* kReader = "StreamFileReader";
constexpr const char* kPayloadFailed = "payload write failed";

std::array<char, 4> to_little_endian(std::uint32_t value) {
  return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
          static_cast<char>(value >> 24)};
}

std::string read_text(std::ifstream& file, std::size_t length) {
  std::string text;
  while (text.size() < length) {
    const std::size_t used = text.size();
    text.resize(std::min(length, used + std::max(used, kHeaderPieceBytes)));
    if (!file.read(text.data() + used, static_cast<std::streamsize>(text.size() - used))) {
      throw Error(OT_ERR_IO, kReader, "truncated JSON header");
    }
  }
  return text;
}

/// The header's text; leaves `file` at the payload.
std::string read_header_text(std::ifstream& file) {
  std::array<char, 8> magic;
  if (!file.read(magic.data(), magic.size())) {
    throw Error(OT_ERR_IO, kReader, "truncated magic");
  }
  if (magic != kStreamFileMagic && magic != kLegacyMagic) {
    throw Error(OT_ERR_FORMAT, kReader, "not an Orvo timing stream file");
  }
  std::array<char, 4> length;
  if (!file.read(length.data(), length.size())) {
    throw Error(OT_ERR_IO, "stream file", "truncated header length");
  }
  return read_text(file, detail::load_little_endian<std::uint32_t>(length.data()));
}

}  // namespace

StreamFileWriter::~StreamFileWriter() { static_cast<void>(end_file()); }

void StreamFileWriter::open(const std::string& path, const StreamFileHeader& header) {
  static_cast<void>(end_file());
  gathered_.reserve(kGatheredBytes);
  file_.rdbuf()->pubsetbuf(nullptr, 0);  // no buffer but ours, which is written when we say so
  file_.open(path, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!file_) {
    throw Error(OT_ERR_IO, kWriter, "cannot open " + path);
  }
  file_.setstate(std::ios::failbit);  // also after an exception: no payload without a header
  const std::string text = detail::stream_header_to_json(header);
  if (text.size() >= kHeaderLimitBytes) {
    throw Error(OT_ERR_ARGUMENT, kWriter, "header is too large");
  }
  const std::array<char, 4> length = to_little_endian(static_cast<std::uint32_t>(text.size()));
  std::string front(kStreamFileMagic.data(), kStreamFileMagic.size());
  front.append(length.data(), length.size()).append(text);
  file_.clear();
  if (!file_.write(front.data(), static_cast<std::streamsize>(front.size()))) {
    throw Error(OT_ERR_IO, kWriter, "failed to write header");
  }
}

void StreamFileWriter::write(const std::uint8_t* data, std::uint64_t size) {
  if (!file_) {
    throw Error(OT_ERR_NOT_OPEN, kWriter, "not open");
  }
  if (data == nullptr && size != 0) {
    throw Error(OT_ERR_ARGUMENT, kWriter, "null data");
  }
  if (size > kGatheredBytes - gathered_.size()) {
    flush();
  }
  if (file_.is_open() && size < kGatheredBytes) {
    gathered_.insert(gathered_.end(), data, data + size);
  } else {
    write_now(data, size);
  }
}

void StreamFileWriter::flush() {
  if (!gathered_.empty()) {
    write_now(gathered_.data(), gathered_.size());
    gathered_.clear();
  }
}

void StreamFileWriter::write_now(const std::uint8_t* data, std::uint64_t size) {
  if (!file_.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size))) {
    throw Error(OT_ERR_IO, kWriter, kPayloadFailed);
  }
}

void StreamFileWriter::close() {
  if (!end_file()) {
    throw Error(OT_ERR_IO, kWriter, kPayloadFailed);
  }
}

/// Writes out what is gathered and closes. False: that failed, and nothing had failed before.
bool StreamFileWriter::end_file() noexcept {
  if (!file_.is_open()) {
    return true;
  }
  const bool failed_before = !file_;
  try {
    flush();
  } catch (...) {  // shows in the state of the stream
  }
  gathered_.clear();
  file_.close();
  return file_.good() || failed_before;
}

struct StreamFileReader::File {
  std::ifstream stream;
  std::string header_remark;
  StreamFileHeader header;
  std::uint64_t payload_start_bytes = 0;
  std::uint64_t payload_read_bytes = 0;
  std::unique_ptr<StreamDecoder> decoder;  // from the first read on; null: of no known records
  std::span<const TimeTag> pending;        // in the decoder's storage
};

StreamFileReader::StreamFileReader() = default;
StreamFileReader::~StreamFileReader() = default;
StreamFileReader::StreamFileReader(StreamFileReader&&) noexcept = default;
StreamFileReader& StreamFileReader::operator=(StreamFileReader&&) noexcept = default;

void StreamFileReader::open(const std::string& path) {
  close();
  auto file = std::make_unique<File>();
  file->stream.open(path, std::ios::in | std::ios::binary);
  if (!file->stream) {
    throw Error(OT_ERR_IO, kReader, "cannot open " + path);
  }
  const std::string text = read_header_text(file->stream);
  file->header = detail::stream_header_from_json(text, file->header_remark);
  file->payload_start_bytes = kStreamFileMagic.size() + 4 + text.size();
  file_ = std::move(file);
}

void StreamFileReader::close() noexcept { file_.reset(); }

const StreamFileHeader& StreamFileReader::header() const noexcept {
  static const StreamFileHeader kNone;
  if (file_ == nullptr) {
    return kNone;
  }
  return file_->header;
}

std::string StreamFileReader::header_remark() const {
  return file_ != nullptr ? file_->header_remark : "";
}

std::uint64_t StreamFileReader::payload_start_bytes() const noexcept {
  return file_ != nullptr ? file_->payload_start_bytes : 0;
}

std::uint64_t StreamFileReader::read_bytes() const noexcept {
  return file_ != nullptr ? file_->payload_start_bytes + file_->payload_read_bytes : 0;
}

std::uint64_t StreamFileReader::undecoded_bytes() const noexcept {
  return file_ != nullptr && file_->decoder != nullptr ? file_->decoder->buffered_bytes() : 0;
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
  if (file_ == nullptr) {
    throw Error(OT_ERR_NOT_OPEN, kReader, "not open");
  }
  std::span<const TimeTag>& pending = file_->pending;
  while (pending.empty() && decode_chunk(std::max<std::uint64_t>(chunk_bytes, 1))) {
  }
  const std::span<const TimeTag> taken =
      pending.first(static_cast<std::size_t>(std::min<std::uint64_t>(max_tags, pending.size())));
  pending = pending.subspan(taken.size());
  return taken;
}

/// Reads and decodes one chunk; false at the end of the payload.
bool StreamFileReader::decode_chunk(std::uint64_t chunk_bytes) {
  throw_if(interrupted);
  if (file_->decoder == nullptr) {
    file_->decoder = StreamDecoder::make(file_->header);
  }
  if (read_chunk(chunk_bytes) == 0) {
    return false;
  }
  if (file_->decoder == nullptr) {
    return true;
  }
  file_->pending = file_->decoder->feed();
  if (on_lock_event) {
    for (const LockEvent& event : file_->decoder->lock_events()) {
      on_lock_event(event);
    }
  }
  return true;
}

/// Appends up to `chunk_bytes` of the payload to the decoder's input, or passes over them if there
/// is no decoder, and returns how many.
std::uint64_t StreamFileReader::read_chunk(std::uint64_t chunk_bytes) {
  StreamDecoder* const decoder = file_->decoder.get();
  std::ifstream& stream = file_->stream;
  std::uint64_t total = 0;
  do {
    const auto piece = static_cast<std::streamsize>(std::min(chunk_bytes - total, kPieceBytes));
    if (decoder == nullptr) {
      stream.ignore(piece);
    } else {
      const auto room = decoder->prepare(static_cast<std::size_t>(piece));
      stream.read(reinterpret_cast<char*>(room.data()), piece);
    }
    if (stream.bad()) {
      throw Error(OT_ERR_IO, kReader, "payload read failed");
    }
    const auto count = static_cast<std::size_t>(stream.gcount());
    total += count;
    if (decoder != nullptr) {
      decoder->commit(count);
    }
  } while (total < chunk_bytes && stream);
  stream.clear();  // a short last read is normal, and reading on after the end is allowed
  file_->payload_read_bytes += total;
  return total;
}

}  // namespace orvo::timing
