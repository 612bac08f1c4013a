// What one pass over a stream file shows, for everything that looks into recordings.
// Plain values; any thread may call read_recording().
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "orvo/inspection/intervals.h"
#include "orvo/inspection/lock_history.h"
#include "orvo/timing/stream_header.h"
#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

/// How much of a recording is wanted: its header and sizes; what a verdict needs, too; or all.
enum class Depth { header, counts, intervals };

struct RecordingOptions {
  Depth depth = Depth::intervals;
  std::uint64_t chunk_bytes = 1 << 20;         ///< read at a time; packed-delta locks depend on it
  std::uint32_t divider = 0;                   ///< of the calibration source; 0: unknown
  bool guesses_divider = false;                ///< then the one that fits the intervals
  double capture_s = 0;                        ///< how long was recorded; 0: unknown
  std::size_t columns = 1000;                  ///< the most that are wanted
  timing::InterruptionCheck interrupted = {};  ///< asked before each chunk is read
  bool shows_progress = true;                  ///< on standard error, where it is a terminal
  std::optional<std::uint8_t> channel_mask = {};  ///< channels that are judged; else the header's
};

struct ChannelRecording {
  double expected_ps = 0;       ///< of an interval; 0 where there is none to expect
  std::vector<Bin> deviations;  ///< of all intervals from the expected one
  Spread spread;                ///< of those deviations that are below half an interval
  std::vector<Bin> skews;       ///< after the reference, see IntervalAnalysis::skews()
  Spread skew;
  IntervalSummary intervals;  ///< those in the time that counts

  /// Deviations of the shortest and of the longest of these.
  [[nodiscard]] double smallest_ps() const { return deviation_ps(intervals.shortest); }
  [[nodiscard]] double largest_ps() const { return deviation_ps(intervals.longest); }
  [[nodiscard]] double deviation_ps(const Extreme& extreme) const {
    return static_cast<double>(extreme.interval_ps) - expected_ps;
  }
};

struct Recording {
  timing::StreamFileHeader header;
  std::uint64_t header_bytes = 0;           ///< of the file, before its payload
  std::optional<std::uint64_t> file_bytes;  ///< none for a pipe, like the next
  std::optional<std::uint64_t> payload_bytes;
  std::uint64_t read_bytes = 0;       ///< of the payload
  std::uint64_t undecoded_bytes = 0;  ///< of these, left over at the end
  std::string warning;                ///< about its header; empty where there is none
  std::string problem;                ///< why its tags cannot be decoded; empty: they can
  LockHistory locks;
  verification::TagStatistics tags;

  /// As given, or as guessed for a recording in internal mode from its first intervals; else 0.
  std::uint32_t divider = 0;
  double tick_ps = 1;                    ///< all times are multiples of it
  std::optional<std::size_t> reference;  ///< channel that skew is measured against
  std::array<ChannelRecording, verification::kChannels> channels;

  /// The time that counts: all of it, or the stretch as long as the capture that holds most tags,
  /// where it holds at least half of them.
  std::int64_t first_ps = 0;
  std::int64_t last_ps = 0;
  std::uint64_t tags_outside = 0;
  Columns columns;  ///< in it, as many as were wanted or nearly half as many
  std::int64_t column_ps = 0;

  /// Bytes of the payload that were read as records.
  [[nodiscard]] std::uint64_t decoded_bytes() const {
    return read_bytes - std::min(read_bytes, undecoded_bytes + locks.skipped_bytes());
  }
  [[nodiscard]] bool has_intervals() const {
    return std::any_of(channels.begin(), channels.end(), [](const ChannelRecording& channel) {
      return channel.intervals.intervals != 0;
    });
  }
  /// Frees what is large, once it has been shown.
  void forget_series() {
    columns.clear();
    for (ChannelRecording& channel : channels) {
      channel.deviations.clear();
      channel.skews.clear();
    }
  }
  /// Whether there is something to show of a channel: it was recorded.
  [[nodiscard]] bool shows(std::size_t channel) const {
    return verification::channel_counts(header.channel_mask, channel) ||
           tags.channel(channel).count != 0;
  }
};

/// The longest time that a recording of `capture_s` seconds can hold; infinite for 0.
[[nodiscard]] double longest_capture_ps(double capture_s);

/// Errors: timing::Error where the file cannot be read; damage in it is none.
[[nodiscard]] Recording read_recording(const std::filesystem::path& path,
                                       const RecordingOptions& options);

}  // namespace orvo::inspection
