#include "orvo/timing/packed/alignment.h"

#include <algorithm>
#include <array>
#include <bit>

#include "orvo/timing/packed/best_alignment.h"
#include "orvo/timing/packed/grid_map.h"
#include "orvo/timing/packed/record_grid.h"
#include "orvo/timing/packed/turning_points.h"

namespace orvo::timing::detail {
namespace {

std::size_t last_offset(std::size_t buffer_bytes, const PackedFormat& format) {
  return std::min(format.active_channels == 1 ? kLastOffsetOneChannel : kLastOffset,
                  buffer_bytes - 1);
}

/// One walk from the last bit to the first: each turning point is met by its grid, and each place
/// where a parse begins is judged when all behind it is known.
class Search {
 public:
  Search(std::span<const std::uint8_t> buffer, const PackedFormat& format);

  [[nodiscard]] AlignmentSearch run();

 private:
  void visit_block(std::uint64_t first_word, const TurningPoints& points);
  void visit_word(std::uint64_t word, std::uint64_t turns, std::uint64_t inactive,
                  std::uint64_t begins);
  [[nodiscard]] std::uint64_t begins_in(std::uint64_t word) const;
  [[nodiscard]] bool pass_sync_starts(std::uint64_t word, unsigned slot, std::uint64_t sync_starts);
  void catch_up();
  void meet(std::uint64_t position, unsigned grid, bool is_inactive);
  void judge(std::uint64_t begin, unsigned grid);

  [[nodiscard]] std::uint64_t end_of_span(std::uint64_t offset) const {
    return 8 * std::min<std::uint64_t>(offset + kSearchedBytes, buffer_bytes_);
  }

  const PackedFormat& format_;
  const std::size_t buffer_bytes_;
  const std::uint64_t last_offset_;
  const std::uint64_t begins_;  ///< a parse begins at each bit before this one
  const SearchedBits searched_;
  BestAlignment best_;

  std::array<RecordGrid, kMaxGrids> grids_;
  GridMap map_;
  /// Grids with a sync start behind the bits that all spans share.
  std::array<bool, kMaxGrids> late_start_{};

  std::uint64_t later_starts_ = 0;  ///< sync starts of the word behind the one visited
  std::uint64_t can_pass_ = 0;      ///< set of grids; see RecordGrid::can_pass
  std::uint64_t passed_odd_ = 0;    ///< those that passed an odd number and do not know it yet
};

Search::Search(std::span<const std::uint8_t> buffer, const PackedFormat& format)
    : format_(format),
      buffer_bytes_(buffer.size()),
      last_offset_(last_offset(buffer.size(), format)),
      begins_(8 * last_offset_ + format.width),
      searched_{BitView(buffer.first(
                    std::min<std::size_t>(buffer.size(), last_offset_ + kSearchedBytes))),
                format, end_of_span(0)},
      best_(format),
      map_(format.width) {}

AlignmentSearch Search::run() {
  const std::size_t blocks_with_begins =
      (begins_ + 8 * TurningPoints::kBytes - 1) / (8 * TurningPoints::kBytes);
  const std::size_t blocks =
      (searched_.bits.bytes().size() + TurningPoints::kBytes - 1) / TurningPoints::kBytes;
  TurningPoints points;
  for (std::size_t block = std::max(blocks, blocks_with_begins); block-- > 0;) {
    if (!map_.any_open()) {
      block = std::min(block, blocks_with_begins - 1);
    }
    const std::size_t byte = block * TurningPoints::kBytes;
    if (!find_turning_points(searched_.bits, byte, format_, points)) {
      later_starts_ = 0;
      if (block >= blocks_with_begins) {
        continue;
      }
      points = {};
    }
    visit_block(block * TurningPoints::kWords, points);
  }
  return best_.result();
}

void Search::visit_block(std::uint64_t first_word, const TurningPoints& points) {
  unsigned slot = map_.slot_of(first_word + TurningPoints::kWords);
  for (std::size_t i = TurningPoints::kWords; i-- > 0;) {
    const std::uint64_t word = first_word + i;
    slot = map_.slot_before(slot);
    const std::uint64_t begins = begins_in(word);
    const std::uint64_t turns = (points.sync_starts[i] | points.inactive[i]) & map_.open(slot);
    const bool only_starts = (begins | (turns & points.inactive[i])) == 0;
    if ((turns | begins) != 0 && !(only_starts && pass_sync_starts(word, slot, turns))) {
      visit_word(word, turns, points.inactive[i], begins);
    }
    later_starts_ = points.sync_starts[i];
  }
}

void Search::visit_word(std::uint64_t word, std::uint64_t turns, std::uint64_t inactive,
                        std::uint64_t begins) {
  catch_up();
  const std::uint8_t* const grids = map_.grids_of(map_.slot_of(word));
  for (std::uint64_t bits = turns | begins; bits != 0; bits &= bits - 1) {
    const auto behind = static_cast<unsigned>(std::countr_zero(bits));
    const std::uint64_t position = 64 * word + 63 - behind;
    const unsigned grid = grids[63 - behind];
    if ((turns >> behind & 1) != 0) {
      meet(position, grid, (inactive >> behind & 1) != 0);
    }
    if ((begins >> behind & 1) != 0) {
      judge(position, grid);
    }
  }
}

std::uint64_t Search::begins_in(std::uint64_t word) const {
  if (64 * word >= begins_) {
    return 0;
  }
  const std::uint64_t count = begins_ - 64 * word;
  return count >= 64 ? ~std::uint64_t{0} : ~(~std::uint64_t{0} >> count);
}

/// In ones without end sync starts are everywhere, each broken by the next. Where a word has no
/// others, its grids only have to know whether they passed an odd number of them.
bool Search::pass_sync_starts(std::uint64_t word, unsigned slot, std::uint64_t sync_starts) {
  const GridMap::Fold fold = map_.fold(slot, sync_starts);
  if ((fold.any & ~can_pass_) != 0) {
    return false;
  }
  const std::uint64_t starts_next =
      sync_starts << format_.width | later_starts_ >> (64 - format_.width);
  for (std::uint64_t bits = sync_starts & ~starts_next; bits != 0; bits &= bits - 1) {
    const std::uint64_t position = 64 * word + 63 - static_cast<unsigned>(std::countr_zero(bits));
    if (end_of_sync(position, searched_).kind != SyncEnd::Kind::broken_by_start) {
      return false;
    }
  }
  passed_odd_ ^= fold.odd;
  return true;
}

void Search::catch_up() {
  for (unsigned grid = 0; passed_odd_ != 0; ++grid) {
    if ((passed_odd_ & map_.set_of(grid)) != 0) {
      grids_[grid].pass_sync_start();
      passed_odd_ ^= map_.set_of(grid);
    }
  }
}

void Search::meet(std::uint64_t position, unsigned grid, bool is_inactive) {
  RecordGrid& records = grids_[grid];
  if (position + format_.width > searched_.end) {
    late_start_[grid] = late_start_[grid] || !is_inactive;
    return;
  }
  if (records.settled()) {
    return;
  }
  if (is_inactive) {
    records.meet_inactive(position, format_.width);
  } else {
    records.meet_sync_start(position, searched_);
  }
  if (records.settled()) {
    map_.close(grid);
  }
  if (records.can_pass()) {
    can_pass_ |= map_.set_of(grid);
  }
}

/// The spans of different byte offsets end at different records: the parse is taken on from
/// the end that all share to the end of each.
void Search::judge(std::uint64_t begin, unsigned grid) {
  AlignmentParse parse = grids_[grid].outcome();
  if (parse.idle() && !late_start_[grid]) {
    return;
  }
  const unsigned width = format_.width;
  const std::uint64_t lowest = begin < width ? 0 : (begin - width) / 8 + 1;
  std::uint64_t record = std::max(begin, searched_.end - (searched_.end - grid) % width);
  for (std::uint64_t offset = lowest; offset <= std::min(begin / 8, last_offset_); ++offset) {
    const std::uint64_t end = end_of_span(offset);
    for (; record + width <= end; record += width) {
      parse.take(searched_.bits.from(record), record + width, format_);
    }
    best_.offer(parse, offset, begin);
  }
}

}  // namespace

AlignmentSearch probe_packed_alignment(std::span<const std::uint8_t> buffer,
                                       const PackedFormat& format) {
  if (buffer.empty() || !format.valid()) {
    return {};
  }
  return Search(buffer, format).run();
}

}  // namespace orvo::timing::detail
