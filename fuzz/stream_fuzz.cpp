// Any bytes as a recording. An input that begins with 'O' is a whole stream file; any other is
// settings and payload of one, compared with the plain decoder where the settings ask for it.
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
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
  if (!holds) {
    std::abort();
  }
}

/// Where every input goes as a stream file.
const std::string& path() {
  static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("fuzz", 0));
  return path;
}

Tags read(timing::StreamFileReader& reader, std::size_t chunk_bytes) {
  reader.open(path());
  Tags tags;
  reader.for_each_batch(chunk_bytes, [&](std::span<const timing::TimeTag> batch) {
    for (const timing::TimeTag& tag : batch) {
      require(tag.channel < 4);
    }
    require(reader.undecoded_bytes() <= kMaxBufferedBytes);
    tags.insert(tags.end(), batch.begin(), batch.end());
  });
  require(reader.undecoded_bytes() <= kMaxBufferedBytes);
  // The shortest record has four bits.
  require(tags.size() <= 2 * (reader.read_bytes() - reader.payload_start_bytes()));
  return tags;
}

/// Where chunks end may matter to the search of a lock, and to nothing else.
void check_file(std::size_t chunk_bytes, std::size_t other_chunk_bytes) {
  timing::StreamFileReader reader;
  try {
    const Tags tags = read(reader, chunk_bytes);
    require(reader.header().stream_format == timing::Format::packed_delta ||
            tags == read(reader, other_chunk_bytes));
  } catch (const timing::Error& error) {
    require(error.status() == OT_ERR_IO || error.status() == OT_ERR_FORMAT);
  }
}

/// Five bytes before the payload: channel mask (4 bits), tag layout, mode, format (2 bits); delta
/// bits; quantum (2); the last one says how many chunks the payload comes in, less one (3 bits: a
/// search for a lock takes long), and whether the plain decoder, which is slow, has to agree.
void check_payload(Bytes bytes) {
  constexpr std::size_t kSettingsBytes = 5;
  if (bytes.size() < kSettingsBytes) {
    return;
  }
  const Bytes payload = bytes.subspan(kSettingsBytes);
  const std::size_t chunk_bytes = 1 + payload.size() / (1 + bytes[4] % 8U);
  const bool compares = (bytes[4] & 8) != 0;
  timing::StreamFileHeader header;
  header.stream_format = static_cast<timing::Format>(std::min(bytes[0] & 3, 2));
  header.mode = static_cast<timing::Mode>(bytes[0] >> 2 & 1);
  if ((bytes[0] >> 3 & 1) != 0) {
    header.raw64_tag_format = "raw_cf";
  }
  header.channel_mask = bytes[0] >> 4;
  header.delta_bits = bytes[1];
  header.quantum_ps = static_cast<std::uint16_t>(bytes[2] << 8 | bytes[3]);
  timing::StreamFileWriter writer;
  writer.open(path(), header);
  writer.write(payload.data(), payload.size());
  writer.close();
  check_file(chunk_bytes, payload.size());
  if (compares && header.stream_format == timing::Format::packed_delta &&
      timing::StreamDecoder::decodes(header)) {
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
  if (size > 0 && data[0] == 'O') {
    std::ofstream(orvo::fuzz::path(), std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    orvo::fuzz::check_file(size, 1 + size % 61);
  } else {
    orvo::fuzz::check_payload({data, size});
  }
  return 0;
}
