// Which of many candidates is the alignment.
#pragma once

#include <cstdint>
#include <optional>

#include "orvo/timing/packed/alignment.h"
#include "orvo/timing/packed/alignment_parse.h"
#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

/// Takes candidates in any order; among equals the one tried first in the order of byte offset,
/// then bit, wins.
class BestAlignment {
 public:
  explicit BestAlignment(const PackedFormat& format) : format_(format) {}

  /// The outcome of the parse that was begun at bit `begin`, counted from the front of the buffer,
  /// in a span that starts at byte `offset`.
  void offer(const AlignmentParse& parse, std::uint64_t offset, std::uint64_t begin);

  [[nodiscard]] AlignmentSearch result() const;

 private:
  struct Entry {
    AlignmentCandidate candidate;
    std::uint64_t offset;
    std::uint64_t begin;
  };

  static bool better(const Entry& entry, const std::optional<Entry>& best, bool compare_min);

  const PackedFormat& format_;
  std::optional<Entry> best_;
  std::optional<Entry> rejected_;
};

}  // namespace orvo::timing::detail
