#include "orvo/timing/packed/group_plan.h"

#include <algorithm>
#include <span>

namespace orvo::timing::detail {
namespace {

struct Tag {
  std::uint8_t record;
  std::uint8_t channel;
};

constexpr int kNone = -1;

/// `previous[i]`: lane of the tag that lane i's channel had before.
void plan_sums(HalfPlan& half, std::array<int, kHalfTags> previous) {
  for (HalfPlan::Sum& sum : half.sums) {
    const std::array<int, kHalfTags> from = previous;
    for (unsigned i = 0; i < kHalfTags; ++i) {
      if (from[i] != kNone) {
        sum.from[i] = static_cast<std::uint64_t>(from[i]);
        sum.lanes |= static_cast<std::uint8_t>(1U << i);
        previous[i] = from[static_cast<unsigned>(from[i])];  // twice as far back
      }
    }
  }
}

HalfPlan plan_half(std::span<const Tag> tags) {
  HalfPlan half;
  half.tags = static_cast<std::uint8_t>(tags.size());
  std::array<int, 4> last;
  last.fill(kNone);
  std::array<int, kHalfTags> previous;
  previous.fill(kNone);
  for (unsigned i = 0; i < tags.size(); ++i) {
    half.steps[2 * i] = tags[i].record;
    half.step_lanes |= static_cast<std::uint16_t>(1U << (2 * i));
    half.channels[i] = tags[i].channel;
    previous[i] = last[tags[i].channel];
    last[tags[i].channel] = static_cast<int>(i);
  }
  plan_sums(half, previous);
  for (unsigned c = 0; c < 4; ++c) {
    if (last[c] != kNone) {
      half.last[c] = static_cast<std::uint64_t>(last[c]);
      half.last_lanes |= static_cast<std::uint8_t>(1U << c);
    }
  }
  return half;
}

}  // namespace

GroupPlan make_group_plan(std::uint64_t key, const GroupTops& tops, unsigned top_before,
                          std::uint8_t active_mask) {
  GroupPlan plan;
  plan.key = key;
  plan.ordinary = true;
  std::array<Tag, kGroupRecords> tags;
  std::size_t count = 0;
  unsigned before = top_before;
  for (unsigned i = 0; i < kGroupRecords; ++i) {
    const unsigned top = tops[i];
    const unsigned channel = top >> 1;
    const bool after_overflow = (before & 1) != 0;
    const bool joins = after_overflow && (top ^ before) == 1;  // its channel's data record
    plan.ordinary &= (active_mask >> channel & 1) != 0 && joins == after_overflow;
    if ((top & 1) == 0) {
      plan.joined |= static_cast<std::uint16_t>((joins ? 1U : 0U) << i);
      tags[count++] = {static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(channel)};
      ++plan.channel_tags[channel];
    }
    before = top;
  }
  plan.last_top = static_cast<std::uint8_t>(before);
  const std::span<const Tag> all = std::span(tags).first(count);
  const std::size_t first = std::min<std::size_t>(count, kHalfTags);
  plan.halves = {plan_half(all.first(first)), plan_half(all.subspan(first))};
  return plan;
}

}  // namespace orvo::timing::detail
