#include "orvo/timing/packed/alignment.h"

#include <algorithm>
#include <array>
#include <tuple>

#include "orvo/timing/packed/record_grid.h"
#include "orvo/timing/packed/turning_points.h"

namespace orvo::timing::detail {
namespace {

AlignmentCandidate candidate_of(const AlignmentParse& parse, std::uint64_t begin,
                                const PackedFormat& format) {
  const std::uint64_t first_record = parse.was_reset() ? parse.restart : begin;
  AlignmentCandidate candidate{
      .drop_bytes = first_record / 8, .bit_offset = first_record % 8, .min = UINT64_MAX};
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

/// Each byte offset has a span of bytes, and a parse begins at every bit shift in it. Two parses
/// that begin at one bit, but in different spans, differ only in where they end, and the first span
/// ends first. So one parse a bit is read to the end of the first span, for a whole grid at once,
/// and from there to the end of one span after the other.
class Search {
 public:
  Search(std::span<const std::uint8_t> buffer, const PackedFormat& format);

  [[nodiscard]] AlignmentSearch run();

 private:
  static constexpr unsigned kMaxWidth = PackedFormat::kMaxBits + 3;

  void read_grid(unsigned grid, const TurningPoints& turning_points);
  void offer(const AlignmentCandidate& candidate);

  [[nodiscard]] std::uint64_t end_of_span(std::size_t offset) const {
    return 8 * std::uint64_t{std::min(offset + kSearchedBytes, buffer_bytes_)};
  }

  const PackedFormat& format_;
  const std::size_t buffer_bytes_;
  const std::size_t last_offset_;
  const BitView bits_;
  std::array<AlignmentParse, 8 * kLastOffset + kMaxWidth> parses_;  ///< by the bit of the begin
  AlignmentSearch best_;
};

Search::Search(std::span<const std::uint8_t> buffer, const PackedFormat& format)
    : format_(format),
      buffer_bytes_(buffer.size()),
      last_offset_(std::min(format.active_channels == 1 ? kLastOffsetOneChannel : kLastOffset,
                            buffer_bytes_ - 1)),
      bits_(buffer.first(end_of_span(last_offset_) / 8)) {}

AlignmentSearch Search::run() {
  const unsigned width = format_.width;
  const TurningPoints turning_points(bits_, end_of_span(0), format_);
  for (unsigned grid = 0; grid < width && grid + width <= end_of_span(0); ++grid) {
    read_grid(grid, turning_points);
  }
  for (std::size_t offset = 0; offset <= last_offset_; ++offset) {
    const std::uint64_t end = end_of_span(offset);
    for (std::uint64_t begin = 8 * offset; begin < 8 * offset + width; ++begin) {
      if (begin + width <= end) {
        parses_[begin].read_to(end, bits_, format_);
        offer(candidate_of(parses_[begin], begin, format_));
      }
    }
  }
  if (best_.found) {
    best_.rejected.reset();
  }
  return best_;
}

/// Reads all parses of the grid to the end of the first span.
void Search::read_grid(unsigned grid, const TurningPoints& turning_points) {
  const std::uint64_t width = format_.width;
  const std::uint64_t begins_end = 8 * last_offset_ + width;  // after the last bit shift
  RecordGrid records(bits_, format_, turning_points, grid, end_of_span(0));
  for (std::uint64_t n = (begins_end - grid + width - 1) / width; n-- > 0;) {
    const std::uint64_t begin = grid + n * width;
    parses_[begin] = records.outcome_from(begin);
  }
}

/// Among equals the first one offered wins.
void Search::offer(const AlignmentCandidate& candidate) {
  if (candidate.synced < format_.required_synced) {
    return;
  }
  const bool refused = format_.balanced && kMaxImbalance * candidate.min < candidate.max;
  const auto rank = [refused](const AlignmentCandidate& c) {
    return std::tuple(c.synced, refused ? 0 : c.min, c.total);
  };
  std::optional<AlignmentCandidate>& best = refused ? best_.rejected : best_.found;
  if (!best || rank(candidate) > rank(*best)) {
    best = candidate;
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
