// How the parses of one record grid end.
//
// A parse reads records back to back, from the bit at which it begins to the end of its span. The
// positions a multiple of the record width apart are a grid: each parse stays on the grid on which
// it begins, and reads the records there that all earlier parses of the grid read too.
#pragma once

#include <array>
#include <cstdint>

#include "orvo/timing/packed/format.h"
#include "orvo/timing/packed/turning_points.h"

namespace orvo::timing::detail {

/// What a parse has found: which channels sync, and how many data records they have. It
/// reconstructs no times.
struct AlignmentParse {
  static constexpr unsigned kNoChannel = 4;

  std::uint64_t next = 0;     ///< position of the next record
  std::uint64_t restart = 0;  ///< position after the record that last reset the parse; 0 for none
  /// Data records from the one that a channel's first sync anchors. A channel with any is synced.
  std::array<std::uint32_t, 4> counts{};
  unsigned sync_records_left = 0;
  unsigned sync_channel = 0;
  unsigned pending_channel = kNoChannel;  ///< the last sync anchors the next data record of this

  [[nodiscard]] bool was_reset() const { return restart != 0; }

  /// Reads the records that end at or before bit `end`.
  void read_to(std::uint64_t end, const BitView& bits, const PackedFormat& format);

 private:
  void take(std::uint64_t record, const PackedFormat& format);
};

/// Works out how all parses of one grid end, in one walk over its turning points from the last to
/// the first.
///
/// A parse that is not in a sync changes its course only at the next turning point, and a reset
/// makes it forget everything. So the place where a parse begins decides how it ends. From a sync
/// start it ends as from the place where that sync is complete or broken, with the sync added. This
/// place comes later, so how a parse from there ends is known: as from the nearest turning point,
/// which is the one met last. There is one exception: if the nearest is itself a sync start and
/// breaks the sync, the parse goes on with the record after it. So two outcomes are kept.
class RecordGrid {
 public:
  /// Grid `grid` of the turning points. The parses end with the last record that ends at or before
  /// bit `end`, and there is one.
  RecordGrid(const BitView& bits, const PackedFormat& format, const TurningPoints& turning_points,
             unsigned grid, std::uint64_t end);

  /// How the parse that begins at `begin`, a position of the grid, ends. `begin` must decrease from
  /// call to call. The result is valid until the next call.
  [[nodiscard]] const AlignmentParse& outcome_from(std::uint64_t begin);

 private:
  AlignmentParse& from_nearest() { return outcomes_[from_nearest_]; }
  AlignmentParse& after_nearest() { return outcomes_[1 - from_nearest_]; }

  /// One record resets every parse that begins before the nearest turning point, so all of them
  /// end alike.
  [[nodiscard]] bool settled() const {
    return outcomes_[0].was_reset() && outcomes_[0].restart == outcomes_[1].restart;
  }
  void meet(std::uint64_t position);
  void meet_sync_start(std::uint64_t position, unsigned channel);
  void add_data(std::uint64_t begin, unsigned channel);
  /// The nearest breaks the sync that starts at the turning point being met.
  void break_by_nearest() {
    from_nearest_ = 1 - from_nearest_;
    reset_at(nearest_);
  }
  /// The record at `position` resets the parse. If a later one does so too, that one counts.
  void reset_at(std::uint64_t position) {
    if (!from_nearest().was_reset()) {
      from_nearest().restart = position + format_.width;
    }
  }

  const BitView& bits_;
  const PackedFormat& format_;
  TurningPoints::BackwardWalk walk_;
  std::int64_t next_point_;  ///< the turning point to be met next, or BackwardWalk::kEnd
  const std::uint64_t end_;
  std::uint64_t nearest_;  ///< position of the nearest turning point; `end_` before any is met
  std::array<AlignmentParse, 2> outcomes_;
  unsigned from_nearest_ = 0;  ///< index of the outcome from the nearest turning point
  /// Data records after the nearest sync, without its payloads and those of later syncs. Counted
  /// as long as no parse is reset.
  std::array<std::uint32_t, 4> data_{};
};

}  // namespace orvo::timing::detail
