// Counting the data records of a stretch, by channel.
#pragma once

#include <array>
#include <cstdint>

#include "orvo/timing/packed/bit_view.h"

namespace orvo::timing::detail {

/// Of the `records` records of `width` bits from bit `position` on.
[[nodiscard]] std::array<std::uint32_t, 4> count_data_records(const BitView& bits,
                                                              std::uint64_t position,
                                                              std::uint64_t records,
                                                              unsigned width);

}  // namespace orvo::timing::detail
