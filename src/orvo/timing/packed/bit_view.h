// Bytes seen as one row of bits, most significant first, and never read beyond their end.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "orvo/timing/big_endian.h"

namespace orvo::timing::detail {

/// Borrows the bytes. Behind the last of them there are only zeros.
class BitView {
 public:
  explicit BitView(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  [[nodiscard]] std::span<const std::uint8_t> bytes() const { return bytes_; }

  /// The bits from `position` on, at the top of the word: at least 57 of them.
  [[nodiscard]] std::uint64_t from(std::uint64_t position) const {
    const std::size_t byte = position / 8;
    if (byte + sizeof(std::uint64_t) <= bytes_.size()) {
      return load_big_endian_64(bytes_.data() + byte) << (position % 8);
    }
    return load_big_endian_64(copy<sizeof(std::uint64_t)>(byte).data()) << (position % 8);
  }

  /// The bytes from `byte` on.
  template <std::size_t kCount>
  [[nodiscard]] std::array<std::uint8_t, kCount> copy(std::size_t byte) const {
    std::array<std::uint8_t, kCount> copied;
    if (byte + kCount <= bytes_.size()) {
      std::memcpy(copied.data(), bytes_.data() + byte, kCount);
    } else {
      copied = {};
      if (byte < bytes_.size()) {
        std::memcpy(copied.data(), bytes_.data() + byte, bytes_.size() - byte);
      }
    }
    return copied;
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

}  // namespace orvo::timing::detail
