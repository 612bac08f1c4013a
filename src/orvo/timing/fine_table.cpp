#include "orvo/timing/fine_table.h"

#include <algorithm>

#include "orvo/timing/instrument_time.h"

namespace orvo::timing::detail {

std::vector<std::int64_t> default_fine_table() {
  constexpr auto kLargest = static_cast<std::int64_t>(kCoarsePeriodPs) - 1;
  std::vector<std::int64_t> table(kFineTableSize);
  for (std::size_t i = 0; i < table.size(); ++i) {
    table[i] = std::min((37 * static_cast<std::int64_t>(i) + 1) / 2, kLargest);
  }
  return table;
}

}  // namespace orvo::timing::detail
