#include "orvo/inspection/recording.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <span>
#include <utility>

#include "orvo/inspection/stream_input.h"
#include "orvo/timing/instrument_time.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::inspection {
namespace {

using timing::TimeTag;
using verification::kChannels;

constexpr double kInfinite = std::numeric_limits<double>::infinity();
/// Tags from which the intervals to expect are found, where nobody says them.
constexpr std::size_t kFirstTags = 4096;
/// A capture goes on until a read returns: it may hold more time than was asked for.
constexpr double kCaptureReach = 1.25;
constexpr double kCaptureSlack_s = 0.1;

double expected_ps_of(std::uint32_t divider) {
  return timing::kPicosecondsPerSecond * verification::kDecodedTimestampSecondsPerSecond * divider /
         verification::kCalibrationBaseHz;
}

/// The median interval of each channel; 0 where there is none.
std::array<double, kChannels> median_intervals_ps(std::span<const TimeTag> tags) {
  std::array<std::vector<double>, kChannels> intervals;
  std::array<std::optional<std::int64_t>, kChannels> previous;
  for (const TimeTag& tag : tags) {
    const std::size_t channel = tag.channel % kChannels;
    if (const auto before = std::exchange(previous[channel], tag.time_ps)) {
      intervals[channel].push_back(static_cast<double>(tag.time_ps) - static_cast<double>(*before));
    }
  }
  std::array<double, kChannels> medians = {};
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    std::vector<double>& all = intervals[channel];
    if (!all.empty()) {
      const auto middle = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
      std::nth_element(all.begin(), middle, all.end());
      medians[channel] = *middle;
    }
  }
  return medians;
}

/// Fills what is expected of the intervals, where need be from the recording's first tags.
void expect(std::span<const TimeTag> first_tags, bool guesses_divider, Recording& recording) {
  std::array<double, kChannels> expected_ps = {};
  if (recording.divider == 0) {
    expected_ps = median_intervals_ps(first_tags);
    if (guesses_divider && recording.header.mode == timing::Mode::internal) {
      std::array<double, kChannels> sorted = expected_ps;
      std::sort(sorted.begin(), sorted.end(), std::greater());
      const double divider = std::round(sorted[1] / expected_ps_of(1));
      recording.divider = divider >= 1 && divider <= 1e9 ? static_cast<std::uint32_t>(divider) : 0;
    }
  }
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    recording.channels[channel].expected_ps =
        recording.divider != 0 ? expected_ps_of(recording.divider) : expected_ps[channel];
  }
}

/// Fires all channels at once: only the calibration source does.
std::optional<std::size_t> reference_of(const timing::StreamFileHeader& header, std::uint8_t mask) {
  std::size_t channel = 0;
  while (channel < kChannels && !verification::channel_counts(mask, channel)) {
    ++channel;
  }
  return header.mode == timing::Mode::internal && channel < kChannels ? std::optional(channel)
                                                                      : std::nullopt;
}

IntervalSettings settings_for(Recording& recording, double capture_s) {
  IntervalSettings settings = {.constant_rate = recording.header.mode == timing::Mode::internal,
                               .longest_ps = longest_capture_ps(capture_s),
                               .reference = recording.reference.value_or(kChannels)};
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    settings.expected_ps[channel] = recording.channels[channel].expected_ps;
  }
  if (recording.header.stream_format == timing::Format::packed_delta) {
    const verification::EvaluationSettings packed = verification::settings_of(recording.header);
    settings.tick_shift = static_cast<unsigned>(std::countr_zero(packed.packed_quantum_ps));
    settings.largest_plain_ps =
        std::ldexp(std::ldexp(1.0, packed.packed_bits) - 1, static_cast<int>(settings.tick_shift));
  } else {
    settings.largest_plain_ps = kInfinite;
  }
  recording.tick_ps = std::ldexp(1.0, static_cast<int>(settings.tick_shift));
  return settings;
}

struct Stretch {
  Columns::const_iterator begin;
  Columns::const_iterator end;
  std::uint64_t tags = 0;
};

/// The `length` of columns with most tags.
Stretch fullest(const Columns& columns, double length) {
  Stretch best = {columns.begin(), columns.begin()};
  for (auto begin = columns.begin(); begin != columns.end(); ++begin) {
    Stretch stretch = {begin, begin};
    const double end = static_cast<double>(begin->first) + length;
    for (; stretch.end != columns.end() && static_cast<double>(stretch.end->first) < end;
         ++stretch.end) {
      stretch.tags += stretch.end->second.tags;
    }
    best = stretch.tags > best.tags ? stretch : best;
  }
  return best;
}

/// Fills what is about the time that counts.
void take_columns(const IntervalAnalysis& analysis, const RecordingOptions& options,
                  Recording& recording) {
  const Columns& columns = analysis.columns();
  recording.first_ps = std::numeric_limits<std::int64_t>::max();
  recording.last_ps = std::numeric_limits<std::int64_t>::min();
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    recording.first_ps = std::min(recording.first_ps, analysis.tags(channel).smallest_ps);
    recording.last_ps = std::max(recording.last_ps, analysis.tags(channel).largest_ps);
  }
  if (columns.empty()) {
    recording.first_ps = recording.last_ps = 0;
    return;
  }
  recording.column_ps = analysis.column_ps();
  const std::uint64_t all = recording.tags.tags();
  Stretch counted = {columns.begin(), columns.end(), all};
  const double longest_ps = longest_capture_ps(options.capture_s);
  if (static_cast<double>(recording.last_ps) - static_cast<double>(recording.first_ps) >
      longest_ps) {
    const Stretch best = fullest(columns, longest_ps / static_cast<double>(recording.column_ps));
    counted = best.tags >= all - best.tags ? best : counted;
  }
  recording.tags_outside = all - counted.tags;
  // Within a column, the first and the last time are known to its width alone.
  const auto last_index = std::prev(counted.end)->first;
  recording.first_ps = std::max(recording.first_ps, counted.begin->first * recording.column_ps);
  recording.last_ps =
      std::min(recording.last_ps, last_index * recording.column_ps + (recording.column_ps - 1));
  recording.columns = Columns(counted.begin, counted.end);
  for (const auto& [index, column] : recording.columns) {
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      recording.channels[channel].intervals.add(column.channels[channel]);
    }
  }
  for (ChannelRecording& channel : recording.channels) {
    channel.spread = spread_of(channel.intervals.near, channel.deviations, channel.expected_ps / 2);
  }
  const auto span =
      static_cast<std::uint64_t>(last_index) - static_cast<std::uint64_t>(counted.begin->first);
  const auto by =
      static_cast<int>(std::bit_width(span / std::max<std::size_t>(options.columns, 1)));
  recording.columns = coarser(recording.columns, static_cast<unsigned>(by));
  recording.column_ps <<= by;
}

void take_channels(const IntervalAnalysis& analysis, Recording& recording) {
  for (std::size_t number = 0; number < kChannels; ++number) {
    recording.tags.add(number, analysis.tags(number));
    ChannelRecording& channel = recording.channels[number];
    channel.deviations = analysis.deviations(number);
    channel.skews = analysis.skews(number);
    channel.skew = spread_of(analysis.skew(number), channel.skews);
  }
}

void read_intervals(StreamInput& input, const RecordingOptions& options, Recording& recording) {
  std::optional<IntervalAnalysis> analysis;
  std::vector<TimeTag> first_tags;
  const auto begin = [&] {
    expect(first_tags, options.guesses_divider, recording);
    analysis.emplace(settings_for(recording, options.capture_s));
    analysis->add(first_tags);
  };
  input.read(options.chunk_bytes, [&](std::span<const TimeTag> tags) {
    recording.locks.pass(tags);
    if (analysis) {
      analysis->add(tags);
      return;
    }
    first_tags.insert(first_tags.end(), tags.begin(), tags.end());
    if (recording.divider != 0 || first_tags.size() >= kFirstTags) {
      begin();
    }
  });
  if (!analysis) {
    begin();
  }
  analysis->finish();
  take_channels(*analysis, recording);
  take_columns(*analysis, options, recording);
}

}  // namespace

double longest_capture_ps(double capture_s) {
  return capture_s > 0
             ? (kCaptureReach * capture_s + kCaptureSlack_s) * timing::kPicosecondsPerSecond
             : kInfinite;
}

Recording read_recording(const std::filesystem::path& path, const RecordingOptions& options) {
  Recording recording;
  StreamInput input(path, [&](const timing::LockEvent& event) { recording.locks.add(event); });
  input.reader.interrupted = options.interrupted;
  input.shows_progress = options.shows_progress;
  recording.header = input.reader.header();
  recording.header_bytes = input.reader.payload_start_bytes();
  recording.file_bytes = input.file_bytes();
  recording.payload_bytes = input.payload_bytes();
  recording.warning = input.warning();
  recording.problem = input.problem();
  recording.divider = options.divider;
  recording.reference =
      reference_of(recording.header, options.channel_mask.value_or(recording.header.channel_mask));
  if (recording.problem.empty() && options.depth == Depth::counts) {
    input.read(options.chunk_bytes,
               [&](std::span<const TimeTag> tags) { recording.tags.add(tags); });
  } else if (recording.problem.empty() && options.depth == Depth::intervals) {
    read_intervals(input, options, recording);
  }
  if (options.depth != Depth::header && recording.problem.empty()) {
    recording.read_bytes = input.reader.read_bytes() - recording.header_bytes;
    recording.payload_bytes = recording.read_bytes;
  }
  recording.undecoded_bytes = input.reader.undecoded_bytes();
  return recording;
}

}  // namespace orvo::inspection
