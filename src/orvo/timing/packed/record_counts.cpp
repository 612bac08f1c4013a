#include "orvo/timing/packed/record_counts.h"

#include <algorithm>

#include "orvo/timing/packed/alignment_parse.h"

namespace orvo::timing::detail {
namespace {

/// Eight counters of a byte each in one word, one for each kind of record: no counter is stored
/// and loaded again between two records of a kind.
class KindTally {
 public:
  static constexpr std::uint64_t kMostRecords = 255;

  void add(std::uint64_t bits) { tally_ += kOne[record_kind(bits)]; }

  void move_data_to(std::array<std::uint32_t, 4>& counts) {
    for (unsigned c = 0; c < 4; ++c) {
      counts[c] += static_cast<std::uint8_t>(tally_ >> (8 * data_kind(c)));
    }
    tally_ = 0;
  }

 private:
  static constexpr std::uint64_t kOne[8] = {1ULL,       1ULL << 8,  1ULL << 16, 1ULL << 24,
                                            1ULL << 32, 1ULL << 40, 1ULL << 48, 1ULL << 56};
  std::uint64_t tally_ = 0;
};

/// Counts groups of `kGroup` records, each taken from one word.
template <unsigned kGroup>
void count_groups(const BitView& bits, std::uint64_t& position, std::uint64_t& records,
                  unsigned width, std::array<std::uint32_t, 4>& counts) {
  KindTally tally;
  while (records >= kGroup) {
    const std::uint64_t groups = std::min(records, KindTally::kMostRecords) / kGroup;
    for (std::uint64_t i = 0; i < groups; ++i) {
      std::uint64_t word = bits.from(position);
      for (unsigned k = 0; k < kGroup; ++k) {
        tally.add(word);
        word <<= width;
      }
      position += kGroup * width;
    }
    tally.move_data_to(counts);
    records -= groups * kGroup;
  }
}

}  // namespace

std::array<std::uint32_t, 4> count_data_records(const BitView& bits, std::uint64_t position,
                                                std::uint64_t records, unsigned width) {
  // A word holds 57 bits of the stream; of a group's last record only the kind is looked at.
  constexpr unsigned kUsable = 57 - 3;
  std::array<std::uint32_t, 4> counts{};
  if (5 * width <= kUsable) {
    count_groups<6>(bits, position, records, width, counts);
  } else if (2 * width <= kUsable) {
    count_groups<3>(bits, position, records, width, counts);
  } else {
    count_groups<2>(bits, position, records, width, counts);
  }
  count_groups<1>(bits, position, records, width, counts);
  return counts;
}

}  // namespace orvo::timing::detail
