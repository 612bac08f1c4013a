#include <algorithm>

#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"

namespace orvo::timing {
namespace {

/// Of files from before the container had its present name; otherwise the same.
constexpr std::array<char, 8> kLegacyMagic = {'O', 'T', 'S', 'T', 'R', 'M', '1', '\n'};

/// A header is read in pieces of this size, so that a damaged length cannot ask for more memory
/// than the file has bytes.
constexpr std::size_t kHeaderPieceBytes = 1 << 16;

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
  file_.open(path, std::ios::in | std::ios::binary);
  if (!file_) {
    throw Error(OT_ERR_IO, "StreamFileReader: cannot open " + path);
  }
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
  usable_ = true;
}

void StreamFileReader::close() noexcept {
  usable_ = false;
  if (file_.is_open()) {
    file_.close();
  }
}

}  // namespace orvo::timing
