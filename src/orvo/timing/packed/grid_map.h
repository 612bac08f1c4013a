// Which grid the bits of a 64-bit word belong to.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

inline constexpr unsigned kMaxGrids = PackedFormat::kMaxBits + 3;

/// Bit position p belongs to grid p modulo `width`. Words begin at multiples of 64; within one the
/// most significant bit is the first.
class GridMap {
 public:
  explicit GridMap(unsigned width) : width_(width), open_grids_(width) {
    std::fill_n(open_.begin(), width, ~std::uint64_t{0});
    for (unsigned i = 0; i < grids_.size(); ++i) {
      grids_[i] = static_cast<std::uint8_t>(i % width);
    }
  }

  /// The grids lie alike every `width` words: the place of a word among so many, and of the one
  /// before it.
  [[nodiscard]] unsigned slot_of(std::uint64_t word) const {
    return static_cast<unsigned>(word % width_);
  }
  [[nodiscard]] unsigned slot_before(unsigned slot) const {
    return slot == 0 ? width_ - 1 : slot - 1;
  }

  /// Grids of the 64 bits of a word, in order.
  [[nodiscard]] const std::uint8_t* grids_of(unsigned slot) const {
    return grids_.data() + 64 * slot % width_;
  }

  /// Bits of a word whose grids are still open.
  [[nodiscard]] std::uint64_t open(unsigned slot) const { return open_[slot]; }
  [[nodiscard]] bool any_open() const { return open_grids_ > 0; }

  /// To be called once for a grid.
  void close(unsigned grid) {
    --open_grids_;
    for (unsigned bit = grid; bit < 64 * width_; bit += width_) {
      open_[bit / 64] &= ~(std::uint64_t{1} << (63 - bit % 64));
    }
  }

  /// Grids as a set: those with a one in the word, and those with an odd number of ones.
  struct Fold {
    std::uint64_t any = 0;
    std::uint64_t odd = 0;
  };
  [[nodiscard]] Fold fold(unsigned slot, std::uint64_t bits) const {
    Fold fold;
    for (; bits != 0; bits <<= width_) {
      fold.any |= bits >> (64 - width_);
      fold.odd ^= bits >> (64 - width_);
    }
    const unsigned first = *grids_of(slot);
    return {turned(fold.any, first), turned(fold.odd, first)};
  }
  [[nodiscard]] std::uint64_t set_of(unsigned grid) const {
    return std::uint64_t{1} << (width_ - 1 - grid);
  }

 private:
  [[nodiscard]] std::uint64_t turned(std::uint64_t set, unsigned by) const {
    return (set >> by | set << (width_ - by)) & ~(~std::uint64_t{0} << width_);
  }

  unsigned width_;
  unsigned open_grids_;
  std::array<std::uint8_t, kMaxGrids + 64> grids_;
  std::array<std::uint64_t, kMaxGrids> open_{};  ///< by slot
};

}  // namespace orvo::timing::detail
