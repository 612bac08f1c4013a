// Values out of bytes, in either order.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orvo::timing::detail {

[[nodiscard]] inline std::uint64_t load_big_endian_64(const std::uint8_t* bytes) {
  std::uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  if constexpr (std::endian::native == std::endian::little) {
    value = __builtin_bswap64(value);
  }
  return value;
}

[[nodiscard]] inline std::uint32_t load_big_endian_32(const std::uint8_t* bytes) {
  std::uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  if constexpr (std::endian::native == std::endian::little) {
    value = __builtin_bswap32(value);
  }
  return value;
}

template <typename Unsigned>
[[nodiscard]] Unsigned load_little_endian(const char* bytes) {
  Unsigned value = 0;
  for (std::size_t i = sizeof value; i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

/// Most significant bit first, the record of `width` (at most 57) bits at bit `position`. Reads
/// eight bytes.
[[nodiscard]] inline std::uint64_t record_at(const std::uint8_t* data, std::uint64_t position,
                                             unsigned width) {
  return load_big_endian_64(data + position / 8) << (position % 8) >> (64 - width);
}

}  // namespace orvo::timing::detail
