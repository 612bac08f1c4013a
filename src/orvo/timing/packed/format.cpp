#include "orvo/timing/packed/format.h"

#include <algorithm>
#include <bit>

namespace orvo::timing::detail {
namespace {

constexpr unsigned kDefaultBits = 16;
constexpr unsigned kDefaultQuantumPs = 8;
constexpr unsigned kAllChannels = 0x0F;
constexpr unsigned kMinSyncedExternal = 2;  // the inputs may be quiet; two channels show enough

constexpr std::uint64_t all_ones_of(unsigned bits) { return (std::uint64_t{1} << bits) - 1; }

}  // namespace

PackedFormat::PackedFormat(const StreamFileHeader& header)
    : bits(header.delta_bits == 0 ? kDefaultBits : header.delta_bits),
      width(bits + 3),
      all_ones(all_ones_of(std::min(bits, kMaxBits))),
      sync_records((bits + TickCounter::kBits - 1) / bits),
      quantum_shift(static_cast<unsigned>(
          std::countr_zero(header.quantum_ps == 0 ? kDefaultQuantumPs : header.quantum_ps + 0U))),
      counter(quantum_shift),
      active_mask(static_cast<std::uint8_t>(
          header.channel_mask == 0 ? kAllChannels : header.channel_mask & kAllChannels)),
      active_channels(static_cast<unsigned>(std::popcount(active_mask))),
      required_synced(std::max(1U, header.mode == Mode::internal
                                       ? active_channels
                                       : std::min(active_channels, kMinSyncedExternal))),
      internal(header.mode == Mode::internal),
      balanced(internal && active_channels >= 2) {}

}  // namespace orvo::timing::detail
