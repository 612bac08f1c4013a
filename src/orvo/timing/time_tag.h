// One decoded event.
#pragma once

#include <cstdint>

namespace orvo::timing {

inline constexpr double kPicosecondsPerSecond = 1e12;

struct TimeTag {
  std::uint8_t channel;  ///< 0 to 3
  std::int64_t time_ps;  ///< on the decoder's continuous time line

  bool operator==(const TimeTag&) const = default;
};

}  // namespace orvo::timing
