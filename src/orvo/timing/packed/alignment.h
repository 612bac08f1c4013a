// The search for the bit at which packed-delta records begin, and the numbers in the lock's rules.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "orvo/timing/packed/format.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::timing::detail {

// The search of a buffer without a lock.
inline constexpr std::size_t kSearchedBytes = 65'536;     ///< parsed from each byte offset
inline constexpr std::size_t kLastOffset = 64;            ///< byte offset, several active channels
inline constexpr std::size_t kLastOffsetOneChannel = 16;  ///< byte offset, one active channel
inline constexpr std::uint64_t kMaxImbalance = 2;         ///< most to least active channel

// A buffer in which the search found nothing.
inline constexpr std::size_t kReportedBytes = 4'096;  ///< a shorter one waits for more bytes
inline constexpr std::size_t kKeptBytes = 4'096;      ///< of one longer than kSearchedBytes

// A batch of tags that was decoded with a lock.
inline constexpr std::uint64_t kMinJudgedTags = 4'096;
inline constexpr std::uint64_t kMaxBatchImbalance = 8;

/// A place from which records parse into syncs and data.
struct Alignment {
  bool accepted;             ///< false: refused, because its channels are out of balance
  std::uint64_t drop_bytes;  ///< whole bytes before the first record
  std::uint64_t bit_offset;  ///< 0 to 7, within the next byte
  ChannelTally data;         ///< data records of the synced channels
};

/// Searches the front of `buffer`: every byte offset up to the last one, and there every bit shift
/// up to a record's width. Returns the best alignment, which is a refused one only if none is
/// accepted. Takes about 190 KiB of stack and no other memory.
[[nodiscard]] std::optional<Alignment> probe_packed_alignment(const InputBuffer& buffer,
                                                              const PackedFormat& format);

}  // namespace orvo::timing::detail
