// The records that can change the course of a parse, found for every bit position at once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "orvo/timing/packed/bit_view.h"
#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

/// One bit for each place where a record could begin, most significant first.
struct TurningPoints {
  static constexpr std::size_t kWords = 8;
  static constexpr std::size_t kBytes = 8 * kWords;

  std::array<std::uint64_t, kWords> sync_starts;
  std::array<std::uint64_t, kWords> inactive;  ///< records of channels that are not active
};

/// Finds those in the 64 bytes from `byte` on. False when there are none; `points` is then of no
/// use.
[[nodiscard]] bool find_turning_points(const BitView& bits, std::size_t byte,
                                       const PackedFormat& format, TurningPoints& points);

}  // namespace orvo::timing::detail
