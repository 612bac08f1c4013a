// From timestamps to a verdict: each channel's event rate against the one the calibration source
// must produce. Needs no instrument, so recordings can be judged anywhere.
//
// Threads: none of its own; every object belongs to one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>

#include "orvo/timing/time_tag.h"
#include "orvo/verification/run_result.h"

namespace orvo::verification {

/// Frequency that the calibration source divides.
inline constexpr double kCalibrationBaseHz = 712500000.0 / 23.0;
static_assert(kCalibrationBaseHz == 30978260.86956522);

/// The instrument's clock counts 3333 ps for each 10/3 ns that pass.
inline constexpr double kDecodedTimestampSecondsPerSecond = 0.9999;

/// What a verdict depends on beside the timestamps and the divider.
struct EvaluationSettings {
  std::uint8_t channel_mask = 0x0F;
  double tolerance_ppm = 25.0;
  std::uint64_t min_tags_per_channel = 64;
  std::uint8_t packed_bits = 16;
  std::uint16_t packed_quantum_ps = 8;
};

/// Whether `channel` counts under `channel_mask`; no mask at all means every channel.
[[nodiscard]] constexpr bool channel_counts(std::uint8_t channel_mask, std::size_t channel) {
  return channel_mask == 0 || (channel_mask >> channel & 1) != 0;
}

/// Count, smallest and largest time of each channel, in memory that does not grow with the tags.
class TagStatistics {
 public:
  struct Channel {
    std::uint64_t count = 0;
    std::int64_t smallest_ps = std::numeric_limits<std::int64_t>::max();
    std::int64_t largest_ps = std::numeric_limits<std::int64_t>::min();
  };

  /// Takes tags in any order.
  void add(std::span<const timing::TimeTag> tags);

  /// All tags, also those of channels that do not exist.
  [[nodiscard]] std::uint64_t tags() const noexcept;
  [[nodiscard]] const Channel& channel(std::size_t channel) const { return channels_[channel]; }

 private:
  std::array<Channel, kChannels + 1> channels_;  // the last one takes every other channel
};

/// Whether the expected time between two events of a channel is more than one record can carry.
[[nodiscard]] bool overflow_required(double expected_decoded_hz,
                                     const EvaluationSettings& settings);

/// Fills divider, effective_hz, expected_decoded_hz and overflow_required.
void derive_rates(std::uint32_t divider, const EvaluationSettings& settings, RunResult& result);

/// Fills decoded_tags, channels and pass; uses expected_decoded_hz.
void judge(const TagStatistics& statistics, const EvaluationSettings& settings, RunResult& result);

/// Decodes the stream file at `path`, reading `chunk_bytes` at a time. Errors: timing::Error of the
/// reader; timing::Interrupted once `interrupted`, where there is one, says so.
[[nodiscard]] TagStatistics read_tag_statistics(const std::string& path, std::uint64_t chunk_bytes,
                                                bool (*interrupted)() = nullptr);

}  // namespace orvo::verification
