// Any bytes as a recording. An input that begins with 'O' is a whole stream file; any other is
// settings and payload for a decoder, compared with the plain one where the settings ask for it.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <span>
#include <string>

#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"
#include "support/decoder_pair.h"

namespace orvo::fuzz {
namespace {

using tests::Tags;
using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kMaxBufferedBytes = 65'536;  // of a decoder that has not found its records

/// A check that no build leaves out.
void require(bool holds) {
  if (!holds) std::abort();
}

void take(std::span<const timing::TimeTag> batch, Tags& tags) {
  for (const timing::TimeTag& tag : batch) require(tag.channel < 4);
  tags.insert(tags.end(), batch.begin(), batch.end());
}

/// Where chunks end may matter to the search of a lock, and to nothing else.
bool chunks_matter(const timing::StreamFileHeader& header) {
  return header.stream_format == timing::Format::packed_delta;
}

Tags read(timing::StreamFileReader& reader, const std::string& path, std::size_t chunk_bytes) {
  reader.open(path);
  Tags tags;
  reader.for_each_batch(chunk_bytes, [&](auto batch) { take(batch, tags); });
  return tags;
}

void check_file(Bytes bytes) {
  static const int file = memfd_create("fuzz", 0);
  require(ftruncate(file, 0) == 0);
  require(pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  timing::StreamFileReader reader;
  try {
    const Tags tags = read(reader, path, bytes.size());
    require(chunks_matter(reader.header()) || tags == read(reader, path, 1 + bytes.size() % 61));
  } catch (const timing::Error& error) {
    require(error.status() == OT_ERR_IO || error.status() == OT_ERR_FORMAT);
  }
}

Tags decode(const timing::StreamFileHeader& header, Bytes payload, std::size_t chunk_bytes) {
  timing::StreamDecoder decoder(header);
  Tags tags;
  while (decoder.decodes() && !payload.empty()) {
    const Bytes chunk = payload.first(std::min(chunk_bytes, payload.size()));
    payload = payload.subspan(chunk.size());
    const std::size_t most_tags = 2 * (decoder.buffered_bytes() + chunk.size());
    decoder.append(chunk);
    const auto batch = decoder.feed();
    require(batch.size() <= most_tags);  // the shortest record has four bits
    require(decoder.buffered_bytes() <= kMaxBufferedBytes);
    take(batch, tags);
  }
  return tags;
}

/// Five bytes before the payload: channel mask (4 bits), tag layout, mode, format (2 bits); delta
/// bits; quantum (2); the last one says how many chunks the payload comes in, less one (3 bits: a
/// search for a lock takes long), and whether the plain decoder, which is slow, has to agree.
void check_decoder(Bytes bytes) {
  constexpr std::size_t kSettingsBytes = 5;
  if (bytes.size() < kSettingsBytes) return;
  const Bytes payload = bytes.subspan(kSettingsBytes);
  const std::size_t chunk_bytes = 1 + payload.size() / (1 + bytes[4] % 8U);
  const bool compares = (bytes[4] & 8) != 0;
  timing::StreamFileHeader header;
  header.stream_format = static_cast<timing::Format>(std::min(bytes[0] & 3, 2));
  header.mode = static_cast<timing::Mode>(bytes[0] >> 2 & 1);
  if ((bytes[0] >> 3 & 1) != 0) header.raw64_tag_format = "raw_cf";
  header.channel_mask = bytes[0] >> 4;
  header.delta_bits = bytes[1];
  header.quantum_ps = static_cast<std::uint16_t>(bytes[2] << 8 | bytes[3]);
  const Tags tags = decode(header, payload, chunk_bytes);
  if (!chunks_matter(header)) {
    require(tags == decode(header, payload, payload.size()));
  } else if (compares) {
    tests::DecoderPair pair(header);
    require(pair.feed_in_chunks(payload, [&] { return chunk_bytes; }) == "");
  }
}

}  // namespace
}  // namespace orvo::fuzz

/// The decoder's lines are made, so that making them is tried too, and go nowhere.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("ORVO_PACKED_DEBUG", "", 1);
  std::cerr.rdbuf(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const orvo::fuzz::Bytes bytes(data, size);
  size > 0 && data[0] == 'O' ? orvo::fuzz::check_file(bytes) : orvo::fuzz::check_decoder(bytes);
  return 0;
}
