// Any bytes as a recording. An input that begins with 'O' is a whole stream file; any other goes
// to a decoder directly, which is some times faster.
#include <algorithm>
#include <cstdint>
#include <iostream>

#include "check.h"
#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"
#include "support/decoding.h"

namespace orvo::fuzz {
namespace {

using tests::Tags;

constexpr std::size_t kMaxBufferedBytes = 65'536;  // of a decoder that has not found its records

void take(std::span<const timing::TimeTag> batch, Tags& tags) {
  for (const timing::TimeTag& tag : batch) require(tag.channel < 4);
  tags.insert(tags.end(), batch.begin(), batch.end());
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

Tags read(timing::StreamFileReader& reader, const std::string& path, std::size_t chunk_bytes) {
  reader.open(path);
  Tags tags;
  for (;;) {
    const auto batch = reader.next_tags(1000, chunk_bytes);
    if (batch.empty()) return tags;
    take(batch, tags);
  }
}

/// Where chunks end may matter to the search of a lock, and to nothing else.
bool chunks_matter(const timing::StreamFileHeader& header) {
  return header.stream_format == timing::Format::packed_delta;
}

void check_file(Bytes bytes) {
  static const MemoryFile file;
  file.set(bytes);
  timing::StreamFileReader reader;
  try {
    const Tags tags = read(reader, file.path(), bytes.size());
    const bool any_chunks = !chunks_matter(reader.header());
    require(!any_chunks || tags == read(reader, file.path(), 1 + bytes.size() % 61));
  } catch (const timing::Error& error) {
    require(error.status() == OT_ERR_IO || error.status() == OT_ERR_FORMAT);
  }
}

void check_decoder(const DecoderInput& input) {
  const Tags tags = decode(input.header, input.payload, input.chunk_bytes);
  if (!chunks_matter(input.header)) {
    require(tags == decode(input.header, input.payload, input.payload.size()));
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
  if (size > 0 && data[0] == 'O') {
    orvo::fuzz::check_file(bytes);
  } else if (const auto input = orvo::fuzz::decoder_input(bytes)) {
    orvo::fuzz::check_decoder(*input);
  }
  return 0;
}
