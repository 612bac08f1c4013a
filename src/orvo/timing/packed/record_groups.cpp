#include "orvo/timing/packed/record_groups.h"

#include <cstdlib>
#include <cstring>

#if defined(__x86_64__)

#include <immintrin.h>

#include "orvo/timing/packed/group_plan.h"

// Per function: the rest of the library must run on any processor.
#define ORVO_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,bmi2")))

namespace orvo::timing::detail {
namespace {

// The kernel writes tags as pairs of 64-bit words, the channel in the lowest byte of the first.
static_assert(sizeof(TimeTag) == 16 && offsetof(TimeTag, channel) == 0 &&
              offsetof(TimeTag, time_ps) == 8);

/// Records up to here fit 32 bits wherever they begin in a byte, and so does the step of an
/// overflow and a data record together.
constexpr unsigned kMaxGroupBits = 16;

bool processor_has_avx512() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
         __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("bmi2");
}

/// How sixteen records that begin at some bit of a byte are spread over sixteen lanes. The next
/// sixteen begin at the same bit again.
struct Spread {
  alignas(64) std::array<std::uint8_t, 64> bytes;  // to big-endian words
  alignas(64) std::array<std::uint32_t, kGroupRecords> shifts;

  Spread() = default;
  Spread(unsigned bit, unsigned width) {
    for (unsigned i = 0; i < kGroupRecords; ++i, bit += width) {
      for (unsigned k = 0; k < 4; ++k) {
        bytes[4 * i + k] = static_cast<std::uint8_t>(bit / 8 + 3 - k);
      }
      shifts[i] = bit % 8;
    }
  }
};

ORVO_AVX512 inline __m512i load(const void* aligned) { return _mm512_load_si512(aligned); }

ORVO_AVX512 inline __m128i shift_by(unsigned count) {
  return _mm_cvtsi32_si128(static_cast<int>(count));
}

ORVO_AVX512 inline __m512i add(__m512i values, const HalfPlan::Sum& sum) {
  return _mm512_mask_add_epi64(values, sum.lanes, values,
                               _mm512_permutexvar_epi64(load(sum.from.data()), values));
}

/// Whether nothing that sixteen ordinary records can hold is beyond what the lanes take.
bool all_plain(const PackedLanes& lanes, const PackedFormat& format) {
  const std::uint64_t step_limit_ps = std::uint64_t{1} << (2 * format.bits + format.quantum_shift);
  for (unsigned c = 0; c < 4; ++c) {
    if (format.active(c) && lanes.step_bound_ps[c] < step_limit_ps) {
      return false;
    }
  }
  return true;
}

ORVO_AVX512 std::uint32_t last_of(__m512i values) {
  alignas(64) std::array<std::uint32_t, kGroupRecords> stored;
  _mm512_store_si512(stored.data(), values);
  return stored.back();
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
  const __m512i channels = load(half.channels.data());
  const __m512i tag_times = _mm512_add_epi64(sums, _mm512_permutexvar_epi64(channels, times));
  // From the sums, not from the times of the tags: the next half waits for one addition only.
  times = _mm512_add_epi64(
      times, _mm512_maskz_permutexvar_epi64(half.last_lanes, load(half.last.data()), sums));

  const __m512i first_four = _mm512_set_epi64(11, 3, 10, 2, 9, 1, 8, 0);
  const __m512i last_four = _mm512_set_epi64(15, 7, 14, 6, 13, 5, 12, 4);
  _mm512_storeu_si512(end, _mm512_permutex2var_epi64(channels, first_four, tag_times));
  _mm512_storeu_si512(end + 4, _mm512_permutex2var_epi64(channels, last_four, tag_times));
  return end + half.tags;
}

}  // namespace

struct RecordGroups::Plans {
  static constexpr unsigned kPlanBits = 6;
  /// A plan costs what several groups gain. Channels that fire in no order would need a new one
  /// all the time: with the credit used up, the rest of the batch goes without groups.
  static constexpr int kMaxCredit = 64;
  static constexpr int kPlanCost = 8;

  explicit Plans(const PackedFormat& stream_format) : format(stream_format) {
    for (unsigned bit = 0; bit < spreads.size(); ++bit) {
      spreads[bit] = Spread(bit, format.width);
    }
  }

  /// Plan for the records' tops; null when a new one is too dear.
  ORVO_AVX512 const GroupPlan* plan_for(__m128i tops, unsigned top_before) {
    constexpr std::uint64_t kTopBits = 0x0707'0707'0707'0707;
    const auto low = static_cast<std::uint64_t>(_mm_cvtsi128_si64(tops));
    const auto high = static_cast<std::uint64_t>(_mm_extract_epi64(tops, 1));
    const std::uint64_t key = _pext_u64(low, kTopBits) | _pext_u64(high, kTopBits) << 24 |
                              std::uint64_t{top_before} << 48;
    constexpr std::uint64_t kSpreadingFactor = 0x9E37'79B9'7F4A'7C15;  // 2^64 / golden ratio
    GroupPlan& plan = plans[key * kSpreadingFactor >> (64 - kPlanBits)];
    if (plan.key != key) [[unlikely]] {
      credit -= kPlanCost;
      if (credit < 0) {
        return nullptr;
      }
      alignas(16) GroupTops stored;
      _mm_store_si128(reinterpret_cast<__m128i*>(stored.data()), tops);
      plan = make_group_plan(key, stored, top_before, format.active_mask);
    } else if (credit < kMaxCredit) {
      ++credit;
    }
    return &plan;
  }

  const PackedFormat& format;
  std::array<Spread, 8> spreads;  // by the bit of a byte at which a group begins
  std::array<GroupPlan, 1U << kPlanBits> plans;
  int credit = kMaxCredit;
};

std::unique_ptr<RecordGroups> RecordGroups::make(const PackedFormat& format) {
  const char* kernel = std::getenv("ORVO_PACKED_KERNEL");
  const bool wanted = kernel == nullptr || std::strcmp(kernel, "portable") != 0;
  static const bool able = processor_has_avx512();
  const bool use = wanted && able && format.bits <= kMaxGroupBits;
  return use ? std::unique_ptr<RecordGroups>(new RecordGroups(format)) : nullptr;
}

RecordGroups::RecordGroups(const PackedFormat& format) : plans_(std::make_unique<Plans>(format)) {}

RecordGroups::~RecordGroups() = default;

void RecordGroups::begin_batch() { plans_->credit = Plans::kMaxCredit; }

ORVO_AVX512 void RecordGroups::take(PackedCursor& cursor, PackedLanes& lanes) {
  const PackedFormat& format = plans_->format;
  const std::uint64_t group_bits = std::uint64_t{kGroupRecords} * format.width;
  std::uint64_t groups = (cursor.stop - cursor.position) / group_bits;
  // Until all channels are on their way, groups are not worth their plans.
  if (plans_->credit < 0 || groups == 0 || !all_plain(lanes, format)) {
    return;
  }
  const Spread& spread = plans_->spreads[cursor.position % 8];
  const __m512i spread_bytes = load(spread.bytes.data());
  const __m512i spread_shifts = load(spread.shifts.data());
  const __m128i record_shift = shift_by(32 - format.width);
  const __m128i payload_bits = shift_by(format.bits);
  const __m128i quantum_shift = shift_by(format.quantum_shift);
  const __m512i all_ones = _mm512_set1_epi32(static_cast<int>(format.all_ones));
  const __m512i sync_start = _mm512_set1_epi32(static_cast<int>(2 * format.all_ones + 1));

  constexpr __mmask8 kChannels = 0x0F;
  __m512i times = _mm512_maskz_loadu_epi64(kChannels, lanes.time_ps.data());
  __m512i tags = _mm512_maskz_loadu_epi64(kChannels, lanes.tags.data());
  __m512i payloads_before = _mm512_setzero_si512();
  unsigned top_before = 0;
  // Local, for a store of tags could be to anything else as far as the compiler knows.
  const std::uint8_t* group = cursor.data + cursor.position / 8;
  TimeTag* end = cursor.end;
  for (; groups > 0; --groups, group += group_bits / 8) {
    const __m512i words = _mm512_permutexvar_epi8(spread_bytes, _mm512_loadu_si512(group));
    const __m512i records = _mm512_srl_epi32(_mm512_sllv_epi32(words, spread_shifts), record_shift);
    const __m512i sync_parts = _mm512_and_si512(records, sync_start);
    if (_mm512_cmpeq_epi32_mask(sync_parts, sync_start) != 0) [[unlikely]] {
      break;
    }
    const __m128i tops = _mm512_cvtepi32_epi8(_mm512_srl_epi32(records, payload_bits));
    const GroupPlan* plan = plans_->plan_for(tops, top_before);
    if (plan == nullptr || !plan->ordinary) [[unlikely]] {
      break;
    }
    const __m512i payloads = _mm512_and_si512(records, all_ones);
    const __m512i overflow = _mm512_maskz_sll_epi32(
        plan->joined, _mm512_alignr_epi32(payloads, payloads_before, kGroupRecords - 1),
        payload_bits);
    const __m512i steps = _mm512_or_si512(overflow, payloads);
    end = emit(plan->halves[0], steps, quantum_shift, times, end);
    if (plan->halves[1].tags > 0) {
      end = emit(plan->halves[1], steps, quantum_shift, times, end);
    }
    tags = _mm512_add_epi64(tags, load(plan->channel_tags.data()));
    payloads_before = payloads;
    top_before = plan->last_top;
  }
  cursor.position = 8 * static_cast<std::uint64_t>(group - cursor.data) + cursor.position % 8;
  cursor.end = end;
  _mm512_mask_storeu_epi64(lanes.time_ps.data(), kChannels, times);
  _mm512_mask_storeu_epi64(lanes.tags.data(), kChannels, tags);
  if ((top_before & 1) != 0) {  // its data record is behind the last group
    lanes.overflow[top_before >> 1] = last_of(payloads_before);
    lanes.step_bound_ps[top_before >> 1] = 0;
  }
}

}  // namespace orvo::timing::detail

#else  // any other processor: no groups

namespace orvo::timing::detail {

struct RecordGroups::Plans {};

std::unique_ptr<RecordGroups> RecordGroups::make(const PackedFormat&) { return nullptr; }
RecordGroups::~RecordGroups() = default;
void RecordGroups::begin_batch() {}
void RecordGroups::take(PackedCursor&, PackedLanes&) {}

}  // namespace orvo::timing::detail

#endif
