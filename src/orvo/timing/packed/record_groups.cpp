#include "orvo/timing/packed/record_groups.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#ifndef ORVO_AVX512  // which tests define, with intrinsics of plain loops
// For each function by itself: the rest of the library must run on any processor.
#define ORVO_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,bmi2")))
#endif

namespace orvo::timing::detail {
namespace {

// A tag is stored as two 64-bit lanes: its channel with the padding zero, and its time.
static_assert(sizeof(TimeTag) == 16 && sizeof(TimeTag::channel) == 1);
static_assert(offsetof(TimeTag, channel) == 0 && offsetof(TimeTag, time_ps) == 8);

constexpr unsigned kGroupRecords = 16;  // one in each 32-bit lane of a 512-bit register
constexpr unsigned kHalfTags = 8;       // one in each 64-bit lane
/// Records up to here fit 32 bits wherever they begin in a byte, and so does the step of an
/// overflow and a data record together.
constexpr unsigned kMaxGroupBits = 16;

bool processor_has_avx512() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
         __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("bmi2");
}

// --- Plans ---

/// A pattern: the tops of sixteen records, and above them that of the record before. A top is the
/// three bits above a record's payload: channel and flag.
constexpr unsigned kTopBits = 3;
constexpr std::uint64_t kNoPattern = UINT64_MAX;

constexpr unsigned top_of(std::uint64_t pattern, unsigned record) {
  return static_cast<unsigned>(pattern >> (kTopBits * record) & 7);
}
constexpr unsigned top_before(std::uint64_t pattern) { return top_of(pattern, kGroupRecords); }
constexpr unsigned last_top(std::uint64_t pattern) { return top_of(pattern, kGroupRecords - 1); }

/// Up to eight tags of a group, in the order of their records, one in each 64-bit lane. What lanes
/// without a tag hold is not used.
struct HalfPlan {
  /// Adds lane `from[i]` to lane i where `lanes` has bit i. The first sum adds the channel's tag
  /// one before, the second two before, the third four before: after all three, each lane holds
  /// the sum of its channel's steps up to itself.
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
  std::uint64_t pattern = kNoPattern;
  bool ordinary = false;     ///< nothing for the rules, unless a sync starts
  std::uint16_t joined = 0;  ///< data records that add to the overflow record before them
  alignas(64) std::array<std::uint64_t, kHalfTags> channel_tags{};  ///< by channel, then zeros
  std::array<HalfPlan, 2> halves;
};

struct TagPlace {
  unsigned record;
  unsigned channel;
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

HalfPlan plan_half(std::span<const TagPlace> tags) {
  HalfPlan half;
  half.tags = static_cast<std::uint8_t>(tags.size());
  std::array<int, kChannels> last;
  last.fill(kNone);
  std::array<int, kHalfTags> previous;
  previous.fill(kNone);
  for (unsigned i = 0; i < tags.size(); ++i) {
    half.steps[2 * i] = tags[i].record;
    half.step_lanes |= static_cast<std::uint16_t>(1U << (2 * i));
    half.channels[i] = tags[i].channel;
    previous[i] = std::exchange(last[tags[i].channel], static_cast<int>(i));
  }
  plan_sums(half, previous);
  for (unsigned c = 0; c < kChannels; ++c) {
    if (last[c] != kNone) {
      half.last[c] = static_cast<std::uint64_t>(last[c]);
      half.last_lanes |= static_cast<std::uint8_t>(1U << c);
    }
  }
  return half;
}

GroupPlan make_plan(std::uint64_t pattern, const PackedFormat& format) {
  GroupPlan plan;
  plan.pattern = pattern;
  plan.ordinary = true;
  std::array<TagPlace, kGroupRecords> tags;
  std::size_t count = 0;
  unsigned before = top_before(pattern);
  for (unsigned i = 0; i < kGroupRecords; ++i) {
    const unsigned top = top_of(pattern, i);
    const unsigned channel = top >> 1;
    const bool after_overflow = (before & 1) != 0;
    const bool joins = after_overflow && (top ^ before) == 1;  // its channel's data record
    plan.ordinary &= format.active(channel) && joins == after_overflow;
    if ((top & 1) == 0) {
      plan.joined |= static_cast<std::uint16_t>((joins ? 1U : 0U) << i);
      tags[count++] = {i, channel};
      ++plan.channel_tags[channel];
    }
    before = top;
  }
  const std::span<const TagPlace> all = std::span(tags).first(count);
  const std::size_t first = std::min<std::size_t>(count, kHalfTags);
  plan.halves = {plan_half(all.first(first)), plan_half(all.subspan(first))};
  return plan;
}

// --- Vectors ---

ORVO_AVX512 inline __m512i load(const void* aligned) { return _mm512_loadu_si512(aligned); }

ORVO_AVX512 inline __m512i all_lanes(std::uint64_t value) {
  return _mm512_set1_epi32(static_cast<int>(value));
}

ORVO_AVX512 inline __m128i shift_by(unsigned count) {
  return _mm_cvtsi32_si128(static_cast<int>(count));
}

ORVO_AVX512 inline __m512i add(__m512i values, const HalfPlan::Sum& sum) {
  return _mm512_add_epi64(values,
                          _mm512_maskz_permutexvar_epi64(sum.lanes, load(sum.from.data()), values));
}

/// How sixteen records that begin at some bit of a byte are spread over sixteen lanes. The next
/// sixteen begin at the same bit again.
struct Spread {
  ORVO_AVX512 Spread(unsigned first_bit, unsigned width) {
    alignas(64) constexpr std::array<std::uint32_t, kGroupRecords> kNumbers = {
        0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const __m512i bits = _mm512_add_epi32(
        _mm512_mullo_epi32(load(kNumbers.data()), all_lanes(width)), all_lanes(first_bit));
    shifts = _mm512_and_si512(bits, all_lanes(7));
    const __m512i first_bytes = _mm512_srl_epi32(bits, shift_by(3));
    bytes = _mm512_add_epi32(_mm512_mullo_epi32(first_bytes, all_lanes(0x0101'0101)),
                             all_lanes(0x0001'0203));  // four bytes each, the first one highest
  }

  __m512i bytes;
  __m512i shifts;
};

ORVO_AVX512 inline std::uint64_t pattern_of(__m512i tops, unsigned before) {
  constexpr std::uint64_t kTops = 0x0707'0707'0707'0707;
  const __m128i bytes = _mm512_cvtepi32_epi8(tops);
  const auto low = static_cast<std::uint64_t>(_mm_extract_epi64(bytes, 0));
  const auto high = static_cast<std::uint64_t>(_mm_extract_epi64(bytes, 1));
  return _pext_u64(low, kTops) | _pext_u64(high, kTops) << (8 * kTopBits) |
         std::uint64_t{before} << (kGroupRecords * kTopBits);
}

/// Stores up to eight tags and adds their steps to `times`, by channel.
ORVO_AVX512 inline TimeTag* emit(const HalfPlan& half, __m512i steps, __m128i quantum_shift,
                                 __m512i& times, TimeTag* end) {
  __m512i sums = _mm512_maskz_permutexvar_epi32(half.step_lanes, load(half.steps.data()), steps);
  sums = add(_mm512_sll_epi64(sums, quantum_shift), half.sums[0]);
  if (half.sums[1].lanes != 0) {
    sums = add(sums, half.sums[1]);
  }
  if (half.sums[2].lanes != 0) {
    sums = add(sums, half.sums[2]);
  }
  constexpr __mmask8 kAllTags = (1U << kHalfTags) - 1;
  const __m512i channels = load(half.channels.data());
  const __m512i tag_times =
      _mm512_add_epi64(sums, _mm512_maskz_permutexvar_epi64(kAllTags, channels, times));
  // From the sums, not from the times of the tags: the next half waits for one addition only.
  times = _mm512_add_epi64(
      times, _mm512_maskz_permutexvar_epi64(half.last_lanes, load(half.last.data()), sums));

  // Lanes 0 to 7 are those of the channels, 8 to 15 those of the times.
  alignas(64) static constexpr std::array<std::uint64_t, kHalfTags> kFirstFour = {0, 8,  1, 9,
                                                                                  2, 10, 3, 11};
  alignas(64) static constexpr std::array<std::uint64_t, kHalfTags> kLastFour = {4, 12, 5, 13,
                                                                                 6, 14, 7, 15};
  _mm512_storeu_si512(end, _mm512_permutex2var_epi64(channels, load(kFirstFour.data()), tag_times));
  _mm512_storeu_si512(end + 4,
                      _mm512_permutex2var_epi64(channels, load(kLastFour.data()), tag_times));
  return end + half.tags;
}

/// Whether all active channels have a time, and the lanes take all that ordinary records can hold.
bool all_plain(const PackedLanes& lanes, const PackedFormat& format) {
  const std::uint64_t step_limit_ps = std::uint64_t{1} << (2 * format.bits + format.quantum_shift);
  for (unsigned c = 0; c < kChannels; ++c) {
    if (format.active(c) && (lanes.step_bound_ps[c] < step_limit_ps || lanes.tag_bytes[c] == 0)) {
      return false;
    }
  }
  return true;
}

class Avx512RecordGroups final : public RecordGroups {
 public:
  explicit Avx512RecordGroups(const PackedFormat& format) : format_(format) {}

  void begin_batch() override { budget_ = std::min(budget_ + 1, kMaxBudget); }
  ORVO_AVX512 void take(PackedCursor& cursor, PackedLanes& lanes) override;

 private:
  static constexpr unsigned kCachedPlanBits = 6;
  /// A new plan takes as long as several groups save, so plans have a budget: each batch and each
  /// group with a cached plan adds one, a new plan takes `kPlanCost`. Channels that fire in no
  /// order would need a plan for every group: they spend it, and records go without groups then.
  static constexpr int kMaxBudget = 64;
  static constexpr int kPlanCost = 8;

  /// Null when the group is not ordinary, or when it needs a new plan and the budget is spent.
  const GroupPlan* plan_for(std::uint64_t pattern) {
    constexpr std::uint64_t kSpreadingFactor = 0x9E37'79B9'7F4A'7C15;  // 2^64 / golden ratio
    GroupPlan& plan = plans_[pattern * kSpreadingFactor >> (64 - kCachedPlanBits)];
    if (plan.pattern != pattern) [[unlikely]] {
      budget_ -= kPlanCost;
      if (budget_ < 0) {
        return nullptr;
      }
      plan = make_plan(pattern, format_);
    } else if (budget_ < kMaxBudget) {
      ++budget_;
    }
    return plan.ordinary ? &plan : nullptr;
  }

  const PackedFormat& format_;
  std::array<GroupPlan, 1U << kCachedPlanBits> plans_;
  int budget_ = kMaxBudget;
};

ORVO_AVX512 void Avx512RecordGroups::take(PackedCursor& cursor, PackedLanes& lanes) {
  const std::uint64_t group_bits = std::uint64_t{kGroupRecords} * format_.width;
  std::uint64_t groups = (cursor.stop - cursor.position) / group_bits;
  // Until every active channel has a time, groups are not worth their plans.
  if (budget_ < 0 || groups == 0 || !all_plain(lanes, format_)) {
    return;
  }
  const Spread spread(cursor.position % 8, format_.width);
  const __m128i record_shift = shift_by(32 - format_.width);
  const __m128i payload_bits = shift_by(format_.bits);
  const __m128i quantum_shift = shift_by(format_.quantum_shift);
  const __m512i all_ones = all_lanes(format_.all_ones);
  const __m512i sync_start = all_lanes(2 * format_.all_ones + 1);

  constexpr __mmask8 kChannelLanes = kAllChannels;
  __m512i times = _mm512_maskz_loadu_epi64(kChannelLanes, lanes.time_ps.data());
  __m512i tags = _mm512_maskz_loadu_epi64(kChannelLanes, lanes.tags.data());
  __m512i payloads_before = all_lanes(0);
  unsigned before = 0;  // top of the record before; at first one without a flag, whatever it was
  // Local copies, because the compiler must assume that storing a tag may change the cursor.
  const std::uint8_t* group = cursor.data + cursor.position / 8;
  TimeTag* end = cursor.end;
  for (; groups > 0; --groups, group += group_bits / 8) {
    const __m512i words = _mm512_permutexvar_epi8(spread.bytes, _mm512_loadu_si512(group));
    const __m512i records = _mm512_srl_epi32(_mm512_sllv_epi32(words, spread.shifts), record_shift);
    const __m512i sync_parts = _mm512_and_si512(records, sync_start);
    if (_mm512_cmpeq_epi32_mask(sync_parts, sync_start) != 0) [[unlikely]] {
      break;
    }
    const std::uint64_t pattern = pattern_of(_mm512_srl_epi32(records, payload_bits), before);
    const GroupPlan* plan = plan_for(pattern);
    if (plan == nullptr) [[unlikely]] {
      break;
    }
    const __m512i payloads = _mm512_and_si512(records, all_ones);
    const __m512i overflow = _mm512_sll_epi32(
        _mm512_maskz_alignr_epi32(plan->joined, payloads, payloads_before, kGroupRecords - 1),
        payload_bits);
    const __m512i steps = _mm512_or_si512(overflow, payloads);
    end = emit(plan->halves[0], steps, quantum_shift, times, end);
    if (plan->halves[1].tags > 0) {
      end = emit(plan->halves[1], steps, quantum_shift, times, end);
    }
    tags = _mm512_add_epi64(tags, load(plan->channel_tags.data()));
    payloads_before = payloads;
    before = last_top(pattern);
  }
  cursor.position = 8 * static_cast<std::uint64_t>(group - cursor.data) + cursor.position % 8;
  cursor.end = end;
  _mm512_mask_storeu_epi64(lanes.time_ps.data(), kChannelLanes, times);
  _mm512_mask_storeu_epi64(lanes.tags.data(), kChannelLanes, tags);
  if ((before & 1) != 0) {  // its data record follows the last group
    std::array<std::uint32_t, kGroupRecords> payloads;
    _mm512_storeu_si512(payloads.data(), payloads_before);
    lanes.overflow[before >> 1] = payloads.back();
    lanes.step_bound_ps[before >> 1] = 0;
  }
}

}  // namespace

std::unique_ptr<RecordGroups> RecordGroups::make(const PackedFormat& format) {
  const char* kernel = std::getenv("ORVO_PACKED_KERNEL");
  const bool wanted = kernel == nullptr || std::strcmp(kernel, "portable") != 0;
  static const bool able = processor_has_avx512();
  const bool use = wanted && able && format.bits <= kMaxGroupBits;
  return use ? std::make_unique<Avx512RecordGroups>(format) : nullptr;
}

}  // namespace orvo::timing::detail

#else  // any other processor: no groups

namespace orvo::timing::detail {

std::unique_ptr<RecordGroups> RecordGroups::make(const PackedFormat&) { return nullptr; }

}  // namespace orvo::timing::detail

#endif
