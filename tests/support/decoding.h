// What decoding tests have in common: bytes in, tags out, in a form that compares and prints.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <utility>
#include <vector>

#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {

inline bool operator==(const TimeTag& a, const TimeTag& b) {
  return a.channel == b.channel && a.time_ps == b.time_ps;
}

inline std::ostream& operator<<(std::ostream& out, const TimeTag& tag) {
  return out << '(' << unsigned{tag.channel} << ", " << tag.time_ps << ')';
}

}  // namespace orvo::timing

namespace orvo::tests {

using Bytes = std::vector<std::uint8_t>;
using Tags = std::vector<timing::TimeTag>;

/// Appends the low `count` bytes of `value`, most significant first.
inline void put_big_endian(Bytes& bytes, std::uint64_t value, unsigned count) {
  while (count-- > 0) {
    bytes.push_back(static_cast<std::uint8_t>(value >> (8 * count)));
  }
}

inline Tags feed(timing::StreamDecoder& decoder, std::span<const std::uint8_t> bytes) {
  decoder.input_buffer.append(bytes);
  const std::span<const timing::TimeTag> tags = decoder.feed();
  return {tags.begin(), tags.end()};
}

/// Feeds `bytes` in chunks of `chunk_bytes`.
inline Tags feed_in_chunks(timing::StreamDecoder& decoder, std::span<const std::uint8_t> bytes,
                           std::size_t chunk_bytes) {
  Tags all;
  while (!bytes.empty()) {
    const std::size_t count = chunk_bytes < bytes.size() ? chunk_bytes : bytes.size();
    const Tags tags = feed(decoder, bytes.first(count));
    all.insert(all.end(), tags.begin(), tags.end());
    bytes = bytes.subspan(count);
  }
  return all;
}

}  // namespace orvo::tests
