#include "orvo/timing/packed_alignment.h"

#include <algorithm>
#include <array>

#include "orvo/timing/big_endian.h"

namespace orvo::timing::detail {
namespace {

constexpr std::size_t kSpanBytes = 65'536;
constexpr std::uint64_t kLastOffset = 64;
constexpr std::uint64_t kLastOffsetOneChannel = 16;

/// A parse that only follows which channels sync and how many records they have.
struct Parse {
  std::array<std::uint64_t, 4> counts{};
  std::array<bool, 4> synced{};
  unsigned countdown = 0;
  unsigned sync_channel = 0;
  int pending = -1;
  std::uint64_t restart = 0;  // records read when it was last reset

  void reset(std::uint64_t records_read) {
    *this = Parse{};
    restart = records_read;
  }

  void take(std::uint64_t record, std::uint64_t records_read, const PackedFormat& format) {
    const auto channel = static_cast<unsigned>(record >> (format.bits + 1));
    const bool flag = (record >> format.bits & 1) != 0;
    if (!format.active(channel)) {
      reset(records_read);
    } else if (countdown > 0) {
      if (channel != sync_channel || flag) {
        reset(records_read);
      } else if (--countdown == 0) {
        pending = static_cast<int>(channel);
      }
    } else if (flag) {
      if ((record & format.all_ones) == format.all_ones) {
        countdown = format.sync_records;
        sync_channel = channel;
      }
    } else if (pending == static_cast<int>(channel)) {
      ++counts[channel];
      synced[channel] = true;
      pending = -1;
    } else if (synced[channel]) {
      ++counts[channel];
    }
  }
};

std::uint64_t read_record(std::span<const std::uint8_t> span, std::uint64_t position,
                          unsigned width) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i, ++position) {
    value = value << 1 | (unsigned{span[position / 8]} >> (7 - position % 8) & 1);
  }
  return value;
}

AlignmentCandidate judge(const Parse& parse, const PackedFormat& format, std::uint64_t first_bit) {
  AlignmentCandidate candidate{first_bit / 8, first_bit % 8, 0, UINT64_MAX, 0, 0};
  for (unsigned c = 0; c < 4; ++c) {
    if (format.active(c)) {
      candidate.synced += parse.synced[c];
      candidate.min = std::min(candidate.min, parse.counts[c]);
      candidate.max = std::max(candidate.max, parse.counts[c]);
      candidate.total += parse.counts[c];
    }
  }
  return candidate;
}

bool better(const AlignmentCandidate& a, const std::optional<AlignmentCandidate>& b,
            bool compare_min) {
  if (!b) return true;
  if (a.synced != b->synced) return a.synced > b->synced;
  if (compare_min && a.min != b->min) return a.min > b->min;
  return a.total > b->total;
}

}  // namespace

AlignmentSearch probe_packed_alignment(std::span<const std::uint8_t> buffer,
                                       const PackedFormat& format) {
  AlignmentSearch search;
  const std::uint64_t last_offset =
      format.active_channels == 1 ? kLastOffsetOneChannel : kLastOffset;
  for (std::uint64_t b = 0; b < buffer.size() && b <= last_offset; ++b) {
    const auto span = buffer.subspan(b, std::min(kSpanBytes, buffer.size() - b));
    const std::uint64_t bits = 8 * std::uint64_t{span.size()};
    for (std::uint64_t s = 0; s < format.width && s + format.width <= bits; ++s) {
      Parse parse;
      const std::uint64_t records = (bits - s) / format.width;
      for (std::uint64_t i = 0; i < records; ++i) {
        parse.take(read_record(span, s + i * format.width, format.width), i + 1, format);
      }
      const AlignmentCandidate candidate =
          judge(parse, format, 8 * b + parse.restart * format.width + s);
      if (candidate.synced < std::max(1U, format.required_synced) || candidate.total == 0) {
        continue;
      }
      if (format.balanced && (candidate.min == 0 || 2 * candidate.min < candidate.max)) {
        if (better(candidate, search.rejected, false)) {
          search.rejected = candidate;
        }
      } else if (better(candidate, search.found, format.active_channels > 1)) {
        search.found = candidate;
      }
    }
  }
  if (search.found) {
    search.rejected.reset();
  }
  return search;
}

}  // namespace orvo::timing::detail
