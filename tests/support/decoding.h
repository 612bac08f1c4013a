// What decoding tests have in common: bytes in, tags out, in forms that compare and print.
#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {

inline std::ostream& operator<<(std::ostream& out, const TimeTag& tag) {
  return out << unsigned{tag.channel} << ':' << tag.time_ps;
}

}  // namespace orvo::timing

namespace orvo::tests {

using Bytes = std::vector<std::uint8_t>;
using Tags = std::vector<timing::TimeTag>;

inline Bytes operator+(Bytes front, const Bytes& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

/// "channel:time " of each tag, for the line of a table.
inline std::string text_of(std::span<const timing::TimeTag> tags) {
  std::ostringstream text;
  for (const timing::TimeTag& tag : tags) text << tag << ' ';
  return text.str();
}

/// Appends the low `count` bytes of `value`, most significant first.
inline void put_big_endian(Bytes& bytes, std::uint64_t value, unsigned count) {
  while (count-- > 0) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * count)));
}

inline Tags feed(timing::StreamDecoder& decoder, std::span<const std::uint8_t> bytes) {
  decoder.append(bytes);
  const std::span<const timing::TimeTag> tags = decoder.feed();
  return {tags.begin(), tags.end()};
}

}  // namespace orvo::tests
