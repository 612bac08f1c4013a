// The bits that a lock search reads, and the positions in them that can change a parse's course.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#include "orvo/timing/big_endian.h"
#include "orvo/timing/packed/alignment.h"
#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

/// Bytes as a row of bits, most significant first, followed by zeros. Borrows the bytes.
class BitView {
 public:
  explicit BitView(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  /// The bits from `position` on, at the top of the word: at least 57 of them, and all 64 if
  /// `position` is a multiple of 8.
  [[nodiscard]] std::uint64_t from(std::uint64_t position) const {
    const std::size_t byte = position / 8;
    const std::uint64_t word = byte + sizeof(std::uint64_t) <= bytes_.size()
                                   ? load_big_endian_64(bytes_.data() + byte)
                                   : last_from(byte);
    return word << (position % 8);
  }

 private:
  [[nodiscard]] std::uint64_t last_from(std::size_t byte) const;

  std::span<const std::uint8_t> bytes_;
};

/// The positions at which a record would start a sync or belong to a channel that is not active.
/// An object takes 128 KiB.
class TurningPoints {
 public:
  /// Finds those whose record ends at or before bit `end`, which is at most 8 * kSearchedBytes.
  TurningPoints(const BitView& bits, std::uint64_t end, const PackedFormat& format);

  class BackwardWalk;

 private:
  struct Word {
    std::uint64_t points;    ///< one bit for each of 64 positions, the first most significant
    std::uint32_t position;  ///< the first
    std::uint32_t grid;      ///< `position` modulo the record width
  };

  unsigned width_;
  std::size_t used_ = 0;  ///< of `words_`: those with a turning point, in order
  std::array<Word, kSearchedBytes / 8> words_;
};

/// Yields the turning points of one grid, which are those at positions that equal `grid` modulo the
/// record width, from the last to the first. Borrows the turning points.
class TurningPoints::BackwardWalk {
 public:
  static constexpr std::int64_t kEnd = -1;  ///< less than every position

  BackwardWalk(const TurningPoints& turning_points, unsigned grid)
      : turning_points_(turning_points), grid_(grid), words_left_(turning_points.used_) {
    for (unsigned bit = 0; bit < 64; bit += turning_points.width_) {
      grid_of_first_bit_ |= std::uint64_t{1} << (63 - bit);
    }
  }

  [[nodiscard]] std::int64_t next() {
    while (points_ == 0) {
      if (words_left_ == 0) {
        return kEnd;
      }
      const Word& word = turning_points_.words_[--words_left_];
      const unsigned skipped = grid_ - word.grid + (grid_ < word.grid ? turning_points_.width_ : 0);
      points_ = word.points & grid_of_first_bit_ >> skipped;
      position_ = word.position;
    }
    const int bit = 63 - std::countr_zero(points_);
    points_ &= points_ - 1;
    return position_ + bit;
  }

 private:
  const TurningPoints& turning_points_;
  unsigned grid_;
  std::uint64_t grid_of_first_bit_ = 0;  ///< the bits of a word that are on the grid of its first
  std::size_t words_left_;
  std::int64_t position_ = 0;  ///< of the word being read
  std::uint64_t points_ = 0;   ///< of that word, without those yielded
};

}  // namespace orvo::timing::detail
