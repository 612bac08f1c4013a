// Which tags are wanted. Plain values; any thread may use them.
#pragma once

#include <cstdint>
#include <optional>

#include "orvo/timing/time_tag.h"

namespace orvo::timing {

struct TagFilter {
  std::uint8_t channel_mask = 0x0F;     ///< bit c: channel c is wanted
  std::optional<std::int64_t> from_ps;  ///< the first time that is wanted
  std::optional<std::int64_t> to_ps;    ///< the first time after it that is not

  [[nodiscard]] bool takes_all() const { return channel_mask == 0x0F && !from_ps && !to_ps; }
  [[nodiscard]] bool operator()(const TimeTag& tag) const {
    return (channel_mask >> tag.channel & 1) != 0 && (!from_ps || tag.time_ps >= *from_ps) &&
           (!to_ps || tag.time_ps < *to_ps);
  }
};

}  // namespace orvo::timing
