#include "orvo/timing/packed/best_alignment.h"

#include <algorithm>

namespace orvo::timing::detail {
namespace {

AlignmentCandidate judge(const AlignmentParse& parse, const PackedFormat& format,
                         std::uint64_t begin) {
  const std::uint64_t bit = parse.was_reset() ? parse.restart : begin;
  AlignmentCandidate candidate{bit / 8, bit % 8, 0, UINT64_MAX, 0, 0};
  for (unsigned c = 0; c < 4; ++c) {
    if (format.active(c)) {
      const std::uint64_t count = parse.counts[c];
      candidate.synced += count > 0 ? 1 : 0;
      candidate.min = std::min(candidate.min, count);
      candidate.max = std::max(candidate.max, count);
      candidate.total += count;
    }
  }
  return candidate;
}

}  // namespace

void BestAlignment::offer(const AlignmentParse& parse, std::uint64_t offset, std::uint64_t begin) {
  const Entry entry{judge(parse, format_, begin), offset, begin};
  const AlignmentCandidate& candidate = entry.candidate;
  if (candidate.synced < format_.required_synced) {
    return;
  }
  const bool unbalanced = format_.balanced && kMaxImbalance * candidate.min < candidate.max;
  std::optional<Entry>& best = unbalanced ? rejected_ : best_;
  if (better(entry, best, !unbalanced)) {
    best = entry;
  }
}

bool BestAlignment::better(const Entry& entry, const std::optional<Entry>& best, bool compare_min) {
  if (!best) {
    return true;
  }
  const AlignmentCandidate& a = entry.candidate;
  const AlignmentCandidate& b = best->candidate;
  if (a.synced != b.synced) {
    return a.synced > b.synced;
  }
  if (compare_min && a.min != b.min) {
    return a.min > b.min;
  }
  if (a.total != b.total) {
    return a.total > b.total;
  }
  return entry.offset != best->offset ? entry.offset < best->offset : entry.begin < best->begin;
}

AlignmentSearch BestAlignment::result() const {
  AlignmentSearch search;
  if (best_) {
    search.found = best_->candidate;
  } else if (rejected_) {
    search.rejected = rejected_->candidate;
  }
  return search;
}

}  // namespace orvo::timing::detail
