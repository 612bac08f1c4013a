// The records that lie `width` bits apart from one another, whatever parse reads them.
#pragma once

#include <array>
#include <cstdint>

#include "orvo/timing/packed/alignment_parse.h"
#include "orvo/timing/packed/bit_view.h"
#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

/// What all grids of a search share.
struct SearchedBits {
  BitView bits;
  const PackedFormat& format;
  std::uint64_t end;  ///< bit before which the records of every parse end
};

/// What becomes of a sync when nothing is known but where it starts.
struct SyncEnd {
  enum class Kind { whole, unfinished, broken, broken_by_start };
  Kind kind;  ///< unfinished: the bits end first; broken: by a record that is none of its payloads
  unsigned channel;
  std::uint64_t position;  ///< behind the payloads, or of the record that breaks it
};

[[nodiscard]] SyncEnd end_of_sync(std::uint64_t position, const SearchedBits& searched);

/// Starts with the same remainder modulo `width` read the same records, the later ones a suffix of
/// them, so that one walk over the grid answers for all of them.
///
/// The walk goes backwards. A parse that knows nothing waits for the next sync start, and after a
/// reset it knows nothing again: what becomes of it depends on its place alone. So the outcome
/// at a sync start is that of a later place, which is known already, plus at most one sync. At any
/// record all parses are in at most two states, in a sync or waiting for one, hence two outcomes
/// are enough: that from the nearest sync start on, and that from right behind it.
class RecordGrid {
 public:
  /// The records below must be met from the last to the first.
  void meet_sync_start(std::uint64_t position, const SearchedBits& searched);
  /// Every parse is reset here.
  void meet_inactive(std::uint64_t position, unsigned width);

  /// Meets a sync start whose sync is broken by the nearest one. With both outcomes reset that
  /// only means that they change places, so that the order among such starts is of no matter.
  void pass_sync_start() { from_next_ = 1 - from_next_; }
  [[nodiscard]] bool can_pass() const {
    return outcomes_[0].was_reset() && outcomes_[1].was_reset();
  }

  /// Nothing before the records met so far can make a difference any more.
  [[nodiscard]] bool settled() const { return settled_; }

  /// State, at the end of the bits searched, of a parse that begins at or before the last record
  /// met (and behind the next that is to be met).
  [[nodiscard]] const AlignmentParse& outcome() const { return outcomes_[from_next_]; }

 private:
  static constexpr std::uint64_t kNone = ~std::uint64_t{0};

  void reset_at(std::uint64_t position, unsigned width);
  void put_sync_in_front(std::uint64_t position, const SyncEnd& end, const SearchedBits& searched);
  void count_behind_sync(const SyncEnd& sync, const SearchedBits& searched);

  std::array<AlignmentParse, 2> outcomes_;
  unsigned from_next_ = 0;               ///< the outcome from the nearest sync start on
  std::uint64_t next_start_ = kNone;     ///< the nearest sync start, until one is passed
  std::array<std::uint32_t, 4> data_{};  ///< records behind the nearest sync, when it is not reset
  bool has_sync_ = false;                ///< a whole one among those of `data_`
  bool settled_ = false;
};

}  // namespace orvo::timing::detail
