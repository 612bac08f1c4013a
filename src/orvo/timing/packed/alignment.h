// The search for the bit at which packed-delta records begin, and the numbers in the lock's rules.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "orvo/timing/packed/format.h"

namespace orvo::timing::detail {

// Limits of imbalance are ratios of the most to the least active channel.

// The search of a buffer without a lock.
inline constexpr std::size_t kSearchedBytes = 65'536;     ///< parsed from each byte offset
inline constexpr std::size_t kLastOffset = 64;            ///< byte offset, several active channels
inline constexpr std::size_t kLastOffsetOneChannel = 16;  ///< byte offset, one active channel
inline constexpr std::uint64_t kMaxImbalance = 2;

// A buffer in which the search found nothing.
inline constexpr std::size_t kReportedBytes = 4'096;  ///< a shorter one waits for more bytes
inline constexpr std::size_t kKeptBytes = 4'096;      ///< of one longer than kSearchedBytes

// A batch of tags that was decoded with a lock.
inline constexpr std::uint64_t kMinJudgedTags = 4'096;
inline constexpr std::uint64_t kMaxBatchImbalance = 8;

/// A place from which records parse into syncs and data, and how well the channels did.
struct AlignmentCandidate {
  std::uint64_t drop_bytes = 0;  ///< whole bytes before the first record
  std::uint64_t bit_offset = 0;  ///< 0 to 7, within the next byte
  unsigned synced = 0;           ///< channels
  std::uint64_t min = 0;         ///< data records of the least active channel
  std::uint64_t max = 0;         ///< data records of the most active channel
  std::uint64_t total = 0;       ///< data records
};

struct AlignmentSearch {
  std::optional<AlignmentCandidate> found;
  /// If nothing was found: the best candidate among those refused for imbalance.
  std::optional<AlignmentCandidate> rejected;
};

/// Searches the front of `buffer`: every byte offset up to the last one, and there every bit shift
/// up to a record's width. Takes about 160 KiB of stack and no other memory.
[[nodiscard]] AlignmentSearch probe_packed_alignment(std::span<const std::uint8_t> buffer,
                                                     const PackedFormat& format);

}  // namespace orvo::timing::detail
