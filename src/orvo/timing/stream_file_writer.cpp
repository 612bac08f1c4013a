#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"

namespace orvo::timing {
namespace {

constexpr std::size_t kWriteBufferBytes = 1 << 20;  // holds writes below 1,024 bytes together
constexpr std::uint64_t kHeaderLimitBytes = std::uint64_t{1} << 32;  // its length has 32 bits

std::array<char, 4> little_endian(std::uint32_t value) {
  return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
          static_cast<char>(value >> 24)};
}

}  // namespace

StreamFileWriter::~StreamFileWriter() { close(); }

void StreamFileWriter::open(const std::string& path, const StreamFileHeader& header) {
  close();
  header_ = header;
  write_buffer_.assign(kWriteBufferBytes, 0);
  // A file stream takes a buffer only while it is closed.
  file_.rdbuf()->pubsetbuf(write_buffer_.data(), static_cast<std::streamsize>(kWriteBufferBytes));
  file_.open(path, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!file_) {
    throw Error(OT_ERR_IO, "StreamFileWriter: cannot open " + path);
  }
  file_.setstate(std::ios::failbit);  // whatever throws: no payload without a header
  const std::string text = detail::stream_header_to_json(header_);
  if (text.size() >= kHeaderLimitBytes) {
    throw Error(OT_ERR_ARGUMENT, "StreamFileWriter: header is too large");
  }
  file_.clear();
  const std::array<char, 4> length = little_endian(static_cast<std::uint32_t>(text.size()));
  file_.write(kStreamFileMagic.data(), kStreamFileMagic.size());
  file_.write(length.data(), length.size());
  file_.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!file_) {
    throw Error(OT_ERR_IO, "StreamFileWriter: failed to write header");
  }
}

void StreamFileWriter::write(const std::uint8_t* data, std::uint64_t size) {
  if (!file_) {
    throw Error(OT_ERR_NOT_OPEN, "StreamFileWriter: not open");
  }
  if (data == nullptr && size != 0) {
    throw Error(OT_ERR_ARGUMENT, "StreamFileWriter: null data");
  }
  file_.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (!file_) {
    throw Error(OT_ERR_IO, "StreamFileWriter: payload write failed");
  }
}

void StreamFileWriter::close() noexcept {
  if (file_.is_open()) {
    file_.close();  // a failure only marks the stream as failed
  }
}

}  // namespace orvo::timing
