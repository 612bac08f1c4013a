// Default fine-time table: picoseconds by which the fine count lies before its coarse clock edge.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orvo::timing::detail {

inline constexpr std::size_t kFineTableSize = 8192;  // one entry for each 13-bit fine count

/// kFineTableSize entries, 0 to kCoarsePeriodPs - 1: 18.5 ps a count, rounded half up and capped.
[[nodiscard]] std::vector<std::int64_t> default_fine_table();

}  // namespace orvo::timing::detail
