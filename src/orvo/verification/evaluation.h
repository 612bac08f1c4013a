// From timestamps to a verdict: each channel's event rate against the one the calibration source
// must produce. Needs no instrument, so recordings can be judged anywhere.
//
// Threads: none of its own; every object belongs to one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <span>
#include <string>

#include "orvo/timing/error.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::verification {

/// Frequency that the calibration source divides.
inline constexpr double kCalibrationBaseHz = 712'500'000.0 / 23.0;
static_assert(kCalibrationBaseHz == 30'978'260.86956522);

/// The instrument's clock counts 3333 ps for each 10/3 ns that pass.
inline constexpr double kDecodedTimestampSecondsPerSecond = 0.9999;

/// In reports, and what the names of a run's files begin with: recordings have their number and
/// kRecordingEnding, reports their endings.
inline constexpr const char* kVerificationName = "overflow_frequency";
inline constexpr const char* kRecordingEnding = ".ortime";

using timing::kChannels;

struct ChannelResult {
  std::uint64_t count = 0;    ///< decoded timestamps
  std::int64_t first_ps = 0;  ///< smallest timestamp; 0 below two timestamps, like the next
  std::int64_t last_ps = 0;   ///< largest timestamp
  double measured_hz = 0;     ///< 0 when it cannot be measured
  double ppm_error = 0;       ///< of measured_hz against the expected rate; 0 without one
  bool pass = false;
};

/// What the calibration source must produce. All 0 and false for a divider of 0.
struct Rates {
  std::uint32_t divider = 0;       ///< as the instrument reported it
  double effective_hz = 0;         ///< what the source really generates
  double expected_decoded_hz = 0;  ///< the same in the instrument's own time
  bool overflow_required = false;  ///< one record cannot carry the expected period
};

struct RunResult : Rates {
  double requested_hz = 0;
  std::filesystem::path stream_file;
  std::uint64_t payload_bytes = 0;
  std::uint64_t decoded_tags = 0;  ///< all of them, also of channels that do not exist
  bool pass = false;
  std::array<ChannelResult, kChannels> channels;  ///< index is the channel number
};

// What reports have of a result, each value by its name there: calls `visit(name, value)`, for a
// number with digits after the point `visit(name, value, digits)`. In the order of the JSON report;
// a report column begins here. Of results that are not constant, values may be set.

/// The source's part of a run: a CSV row begins with it.
template <typename Run, typename Visit>
void visit_source(Run& run, Visit&& visit) {
  visit("requested_hz", run.requested_hz, 3);
  visit("effective_hz", run.effective_hz, 3);
  visit("expected_decoded_hz", run.expected_decoded_hz, 3);
  visit("divider", run.divider);
  visit("overflow_required", run.overflow_required);
}

/// All of a run but its channels.
template <typename Run, typename Visit>
void visit_run(Run& run, Visit&& visit) {
  visit_source(run, visit);
  visit("pass", run.pass);
  visit("stream_file", run.stream_file);
  visit("payload_bytes", run.payload_bytes);
  visit("decoded_tags", run.decoded_tags);
}

/// All of a channel but its number.
template <typename Channel, typename Visit>
void visit_channel(Channel& channel, Visit&& visit) {
  visit("count", channel.count);
  visit("first_ps", channel.first_ps);
  visit("last_ps", channel.last_ps);
  visit("measured_hz", channel.measured_hz, 9);
  visit("ppm_error", channel.ppm_error, 6);
  visit("pass", channel.pass);
}

/// What a verdict depends on besides the timestamps and the divider.
struct EvaluationSettings {
  std::uint8_t channel_mask = timing::kAllChannels;  ///< bit c: channel c counts; 0 means all four
  double tolerance_ppm = 25.0;                       ///< largest accepted rate error of a channel
  std::uint64_t min_tags_per_channel = 64;  ///< fewest timestamps that a channel needs to pass
  std::uint8_t packed_bits = timing::kDefaultDeltaBits;         ///< width of one packed delta
  std::uint16_t packed_quantum_ps = timing::kDefaultQuantumPs;  ///< see timing::StreamFileHeader

  bool operator==(const EvaluationSettings&) const = default;
};

/// What a recording's header says about them, else the defaults; `packed_bits` is 0 where no record
/// overflows.
[[nodiscard]] EvaluationSettings settings_of(const timing::StreamFileHeader& header);

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
  /// Adds another count of a channel.
  void add(std::size_t channel, const Channel& counted);

  /// All tags, also those of channels that do not exist.
  [[nodiscard]] std::uint64_t tags() const noexcept;
  [[nodiscard]] const Channel& channel(std::size_t channel) const { return channels_[channel]; }

 private:
  void add_each(std::span<const timing::TimeTag> tags, std::uint64_t count);

  std::array<Channel, kChannels + 1> channels_;  // the last one takes every other channel
};

[[nodiscard]] Rates derive_rates(std::uint32_t divider, const EvaluationSettings& settings);

/// Everything that follows from timestamps and rates; the requested frequency, the stream file and
/// its size stay empty.
[[nodiscard]] RunResult judge(const TagStatistics& statistics, const Rates& rates,
                              const EvaluationSettings& settings);

/// Decodes the stream file at `path`, reading `chunk_bytes` at a time. Errors: timing::Error of the
/// reader, and where its payload has not `payload_bytes`; timing::Interrupted once `interrupted`
/// returns true.
[[nodiscard]] TagStatistics read_tag_statistics(const std::string& path,
                                                std::uint64_t payload_bytes,
                                                std::uint64_t chunk_bytes,
                                                const timing::InterruptionCheck& interrupted = {});

}  // namespace orvo::verification
