// The packed-delta record format of one stream: what follows from its header alone, and the counts
// of its channels.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

#include "orvo/timing/instrument_time.h"
#include "orvo/timing/stream_header.h"

namespace orvo::timing::detail {

/// A record is, most significant bit first, two bits of channel, one flag, `bits` of payload.
struct PackedFormat {
  static constexpr unsigned kMaxBits = 31;

  static constexpr unsigned kNoChannel = kChannels;
  /// In external mode: the inputs may be quiet, and two synced channels suffice.
  static constexpr unsigned kMinSyncedExternal = 2;

  explicit PackedFormat(const StreamFileHeader& header)
      : bits(header.delta_bits == 0 ? kDefaultDeltaBits : header.delta_bits),
        width(bits + 3),
        all_ones((std::uint64_t{1} << std::min(bits, kMaxBits)) - 1),
        sync_records((bits + TickCounter::kBits - 1) / bits),
        quantum_shift(static_cast<unsigned>(std::countr_zero(
            header.quantum_ps == 0 ? kDefaultQuantumPs + 0U : header.quantum_ps + 0U))),
        counter(quantum_shift),
        active_mask(static_cast<std::uint8_t>(
            header.channel_mask == 0 ? kAllChannels : header.channel_mask & kAllChannels)),
        active_channels(static_cast<unsigned>(std::popcount(active_mask))),
        required_synced(std::max(1U, header.mode == Mode::internal
                                         ? active_channels
                                         : std::min(active_channels, kMinSyncedExternal))),
        internal(header.mode == Mode::internal),
        balanced(internal && active_channels >= 2) {}

  [[nodiscard]] bool valid() const noexcept { return bits <= kMaxBits; }
  [[nodiscard]] bool active(unsigned channel) const noexcept {
    return (active_mask >> channel & 1) != 0;
  }

  unsigned bits;           ///< payload width; a header's 0 means 16
  unsigned width;          ///< of a record, in bits
  std::uint64_t all_ones;  ///< flagged, this payload starts a sync
  unsigned sync_records;   ///< fewest payloads that hold a 41-bit tick
  unsigned quantum_shift;  ///< one tick is 2^quantum_shift ps
  TickCounter counter;

  std::uint8_t active_mask;  ///< a header's mask of 0 means all four
  unsigned active_channels;
  unsigned required_synced;  ///< channels that an alignment must sync
  bool internal;             ///< from the calibration source: steps are limited, channels balanced
  bool balanced;             ///< all active channels carry the same rate
};

using ChannelCounts = std::array<std::uint64_t, kChannels>;

/// What the active channels have of something.
struct ChannelTally {
  ChannelTally(const ChannelCounts& counts, const PackedFormat& format) {
    for (unsigned c = 0; c < counts.size(); ++c) {
      if (format.active(c)) {
        present += counts[c] > 0 ? 1U : 0U;
        min = std::min(min, counts[c]);
        max = std::max(max, counts[c]);
        total += counts[c];
      }
    }
  }

  unsigned present = 0;            ///< channels that have any
  std::uint64_t min = UINT64_MAX;  ///< of the least active channel
  std::uint64_t max = 0;           ///< of the most active channel
  std::uint64_t total = 0;
};

}  // namespace orvo::timing::detail
