#include "orvo/timing/fine_table.h"

#include <algorithm>

namespace orvo::timing::detail {

std::vector<std::int64_t> default_fine_table() {
  std::vector<std::int64_t> table(kFineTableSize);
  for (std::size_t i = 0; i < table.size(); ++i) {
    table[i] = std::min((37 * static_cast<std::int64_t>(i) + 1) / 2, kCoarsePeriodPs - 1);
  }
  return table;
}

}  // namespace orvo::timing::detail
