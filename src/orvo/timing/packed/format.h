// The packed-delta record format of one stream: what follows from its header alone.
#pragma once

#include <cstdint>

#include "orvo/timing/instrument_time.h"
#include "orvo/timing/stream_header.h"

namespace orvo::timing::detail {

/// A record is, most significant bit first, two bits of channel, one flag, `bits` of payload.
struct PackedFormat {
  static constexpr unsigned kMaxBits = 31;

  explicit PackedFormat(const StreamFileHeader& header);

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

}  // namespace orvo::timing::detail
