// Packs bit fields back to back, most significant bit first.
#pragma once

#include <cstdint>

namespace orvo::simulator {

class BitWriter {
 public:
  /// Bytes behind the returned position that put() may overwrite.
  static constexpr unsigned kSlackBytes = 8;

  /// Appends the low `width` bits (1 to 56) of `value`, which has no others; returns the position
  /// behind the last whole byte.
  std::uint8_t* put(std::uint64_t value, unsigned width, std::uint8_t* out) {
    bits_ |= value << (64 - used_ - width);
    used_ += width;
    for (unsigned i = 0; i < 8; ++i) out[i] = static_cast<std::uint8_t>(bits_ >> (56 - 8 * i));
    const unsigned whole = used_ / 8;
    bits_ <<= 8 * whole;
    used_ %= 8;
    return out + whole;
  }

  /// Bits that the byte begun still lacks, 0 when none is begun.
  [[nodiscard]] unsigned missing() const { return (8 - used_) % 8; }

 private:
  std::uint64_t bits_ = 0;  // left-aligned
  unsigned used_ = 0;       // below 8 between calls
};

}  // namespace orvo::simulator
