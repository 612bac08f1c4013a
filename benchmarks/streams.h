// The streams that are decoded: made once, when first asked for, by the simulated instrument.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "orvo/simulator/settings.h"
#include "orvo/timing/stream_header.h"

namespace orvo::benchmarks {

inline constexpr std::size_t kChunkBytes = 1 << 20;
inline constexpr std::size_t kChunks = 64;
inline constexpr unsigned kDeltaBits = 16;
/// As every one of the streams below has them, up to a fraction.
inline constexpr double kRecordsPerChunk = 8.0 * kChunkBytes / (kDeltaBits + 3);

struct PackedStream {
  timing::StreamFileHeader header;
  std::vector<std::uint8_t> bytes;  ///< kChunks chunks, and one before them to warm up with
  std::size_t tags_per_chunk = 0;   ///< in the mean

  [[nodiscard]] std::span<const std::uint8_t> warm_up() const {
    return std::span(bytes).first(kChunkBytes);
  }
  /// One of kChunks.
  [[nodiscard]] std::span<const std::uint8_t> chunk(std::size_t index) const {
    return std::span(bytes).subspan((1 + index) * kChunkBytes, kChunkBytes);
  }
};

enum class StreamKind {
  khz100,  ///< internal mode, like the next two
  mhz1,
  mhz2,       ///< no overflow records
  irregular,  ///< external mode, four different rates
  damaged,    ///< mhz1 with one bit of a sync inverted in the middle of each of the kChunks
};

/// 64 MiB at D = 16 and a quantum of 8 ps. The clock wraps once in every chunk: after about 1 MiB
/// of ordinary events each channel lets the rest of the wrap pass in steps below a second.
[[nodiscard]] const PackedStream& packed_stream(StreamKind kind);

/// The first `bytes` bytes of a stream of 4 x 1 MHz, from the middle of a record on.
[[nodiscard]] std::vector<std::uint8_t> clean_bytes(unsigned delta_bits, std::size_t bytes);

/// The payload that a capture of `seconds` at 4 x `hz` leaves, from the middle of a record on.
[[nodiscard]] std::vector<std::uint8_t> captured_bytes(
    double hz, double seconds, std::uint64_t jitter_ps = simulator::Settings().jitter_ps);

/// Writes a stream file of internal mode.
void write_recording(const std::string& path, std::span<const std::uint8_t> payload);

}  // namespace orvo::benchmarks
