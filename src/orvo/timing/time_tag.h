// One decoded event.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orvo::timing {

inline constexpr double kPicosecondsPerSecond = 1e12;

/// The instrument's channels have the numbers from 0 to kChannels - 1.
inline constexpr std::size_t kChannels = 4;
/// The mask of all channels: bit c for channel c.
inline constexpr std::uint8_t kAllChannels = (1U << kChannels) - 1;

struct TimeTag {
  std::uint8_t channel;  ///< below kChannels
  std::int64_t time_ps;  ///< on the decoder's continuous time line

  bool operator==(const TimeTag&) const = default;
};

}  // namespace orvo::timing
