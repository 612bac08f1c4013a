// What to do with sixteen packed-delta records of one pattern of channels and flags.
#pragma once

#include <array>
#include <cstdint>

namespace orvo::timing::detail {

inline constexpr unsigned kGroupRecords = 16;  // one in each 32-bit lane of a 512-bit register
inline constexpr unsigned kHalfTags = 8;       // one in each 64-bit lane

/// Channel and flag of each record of a group: the three bits above its payload.
using GroupTops = std::array<std::uint8_t, kGroupRecords>;

/// Up to eight tags of a group, in the order of their records. Lanes without a tag come out as
/// anything.
struct HalfPlan {
  /// Each sum adds to a lane the lane that `from` names, where `lanes` has its bit. The first
  /// names the channel's tag before, the next the one two before, then four before: with all three
  /// each lane holds the steps of its channel up to itself.
  struct Sum {
    alignas(64) std::array<std::uint64_t, kHalfTags> from{};
    std::uint8_t lanes = 0;
  };

  alignas(64) std::array<std::uint32_t, kGroupRecords> steps{};  ///< record of each tag
  alignas(64) std::array<std::uint64_t, kHalfTags> channels{};
  alignas(64) std::array<std::uint64_t, kHalfTags> last{};  ///< by channel: lane of its last tag
  std::array<Sum, 3> sums;
  std::uint16_t step_lanes = 0;  ///< 32-bit lanes: the low half of each tag's 64 bits
  std::uint8_t last_lanes = 0;   ///< channels that have a tag
  std::uint8_t tags = 0;
};

struct GroupPlan {
  static constexpr std::uint64_t kNoKey = UINT64_MAX;

  std::uint64_t key = kNoKey;  ///< the pattern
  bool ordinary = false;       ///< nothing for the rules, unless a sync starts
  std::uint16_t joined = 0;    ///< data records that add to the overflow record before them
  std::uint8_t last_top = 0;   ///< of the last record
  alignas(64) std::array<std::uint64_t, kHalfTags> channel_tags{};  ///< by channel, then zeros
  std::array<HalfPlan, 2> halves;
};

/// Plan for records with these `tops` behind a record with `top_before`.
[[nodiscard]] GroupPlan make_group_plan(std::uint64_t key, const GroupTops& tops,
                                        unsigned top_before, std::uint8_t active_mask);

}  // namespace orvo::timing::detail
