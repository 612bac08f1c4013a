// What a fuzz target needs: an input that is settings and payload, a file in memory, a check that
// no build leaves out.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>

#include "orvo/timing/stream_header.h"

namespace orvo::fuzz {

using Bytes = std::span<const std::uint8_t>;

inline void require(bool holds) {
  if (!holds) std::abort();
}

struct DecoderInput {
  timing::StreamFileHeader header;
  std::size_t chunk_bytes = 0;
  Bytes payload;
};

/// Five bytes before the payload: channel mask (4 bits), tag layout, mode, format (2 bits); delta
/// bits; quantum (2); chunks the payload comes in, less one (3 bits: a search for a lock takes
/// long).
inline std::optional<DecoderInput> decoder_input(Bytes bytes) {
  constexpr std::size_t kSettingsBytes = 5;
  if (bytes.size() < kSettingsBytes) return std::nullopt;
  DecoderInput input;
  input.payload = bytes.subspan(kSettingsBytes);
  const unsigned format = bytes[0] & 3U;
  input.header.stream_format = static_cast<timing::Format>(format == 3 ? 2 : format);
  input.header.mode = static_cast<timing::Mode>(bytes[0] >> 2 & 1);
  if ((bytes[0] >> 3 & 1) != 0) input.header.raw64_tag_format = "raw_cf";
  input.header.channel_mask = bytes[0] >> 4;
  input.header.delta_bits = bytes[1];
  input.header.quantum_ps = static_cast<std::uint16_t>(bytes[2] << 8 | bytes[3]);
  input.chunk_bytes = 1 + input.payload.size() / (1 + bytes[4] % 8U);
  return input;
}

/// Holds its bytes in memory, where code that wants a path can read them.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(memfd_create("fuzz", 0)) { require(descriptor_ >= 0); }
  ~MemoryFile() { ::close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  void set(Bytes bytes) const {
    require(ftruncate(descriptor_, 0) == 0);
    require(pwrite(descriptor_, bytes.data(), bytes.size(), 0) ==
            static_cast<ssize_t>(bytes.size()));
  }
  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

}  // namespace orvo::fuzz
