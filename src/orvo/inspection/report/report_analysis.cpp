#include "orvo/inspection/report/report_analysis.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>

#include "orvo/inspection/printable_text.h"
#include "orvo/inspection/stream_input.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using timing::TimeTag;
using verification::kChannels;

constexpr int kMaxDeltaBits = 31;

IntervalScale scale_of(const timing::StreamFileHeader& header, double expected_decoded_hz) {
  IntervalScale scale = {.expected_ps = timing::kPicosecondsPerSecond / expected_decoded_hz,
                         .largest_plain_ps = std::numeric_limits<double>::infinity()};
  if (header.stream_format == timing::Format::packed_delta) {
    const verification::EvaluationSettings packed = settings_of(header);
    scale.quantum_ps = packed.packed_quantum_ps;
    scale.largest_plain_ps =
        (std::ldexp(1.0, std::min<int>(packed.packed_bits, kMaxDeltaBits)) - 1) * scale.quantum_ps;
  }
  return scale;
}

/// Hands all tags to `on_tags`, some at a time, and then each interval among them to
/// `on_interval(channel, interval_ps, time_ps)`.
template <class OnTags, class OnInterval>
void pass_over(StreamInput& input, std::uint64_t chunk_bytes, OnTags on_tags,
               OnInterval on_interval) {
  std::array<IntervalTracker, kChannels> trackers;
  input.read(chunk_bytes, [&](std::span<const TimeTag> tags) {
    on_tags(tags);
    for (const TimeTag& tag : tags) {
      const std::size_t channel = tag.channel % kChannels;
      if (const auto interval_ps = trackers[channel].step(tag.time_ps)) {
        on_interval(channel, *interval_ps, tag.time_ps);
      }
    }
  });
}

void find_ranges(StreamInput& input, const verification::EvaluationSettings& settings,
                 std::uint64_t chunk_bytes, RunAnalysis& run) {
  verification::TagStatistics tags_seen;
  run.scale = scale_of(*run.header, run.decoded.expected_decoded_hz);
  for (ChannelAnalysis& channel : run.channels) {
    channel.statistics = IntervalStatistics(run.scale);
  }
  pass_over(
      input, chunk_bytes, [&](std::span<const TimeTag> tags) { tags_seen.add(tags); },
      [&](std::size_t channel, std::int64_t interval_ps, std::int64_t time_ps) {
        run.channels[channel].statistics.add(interval_ps, time_ps);
      });
  run.undecoded_bytes = input.reader.undecoded_bytes();
  verification::RunResult judged =
      judge(tags_seen, verification::derive_rates(run.decoded.divider, settings), settings);
  judged.requested_hz = run.decoded.requested_hz;
  judged.stream_file = run.decoded.stream_file;
  judged.payload_bytes = run.decoded.payload_bytes;
  run.decoded = judged;
  run.first_ps = std::numeric_limits<std::int64_t>::max();
  run.last_ps = std::numeric_limits<std::int64_t>::min();
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    run.first_ps = std::min(run.first_ps, tags_seen.channel(channel).smallest_ps);
    run.last_ps = std::max(run.last_ps, tags_seen.channel(channel).largest_ps);
  }
}

void fill_charts(const std::filesystem::path& path, std::uint64_t chunk_bytes, std::size_t columns,
                 RunAnalysis& run) {
  for (ChannelAnalysis& channel : run.channels) {
    channel.envelope = IntervalEnvelope(run.first_ps, run.last_ps, columns);
    channel.histogram = IntervalHistogram(std::min(channel.statistics.common_range_quanta(),
                                                   channel.statistics.whole_range_quanta()));
  }
  StreamInput input(path, [&](const timing::LockEvent& event) { run.locks.add(event); });
  pass_over(
      input, chunk_bytes, [&](std::span<const TimeTag> tags) { run.locks.pass(tags); },
      [&](std::size_t number, std::int64_t interval_ps, std::int64_t time_ps) {
        ChannelAnalysis& channel = run.channels[number];
        const auto interval = static_cast<double>(interval_ps);
        const double deviation_ps = interval - run.scale.expected_ps;
        channel.envelope.add(time_ps, deviation_ps, interval > run.scale.largest_plain_ps);
        channel.histogram.add(deviation_ps / run.scale.quantum_ps);
      });
}

}  // namespace

RunAnalysis analyse_run(const verification::RunResult& reported,
                        const verification::EvaluationSettings& settings, std::uint64_t chunk_bytes,
                        std::size_t columns) {
  RunAnalysis run;
  run.decoded = reported;
  const verification::Rates rates = verification::derive_rates(reported.divider, settings);
  run.decoded.effective_hz = rates.effective_hz;
  run.decoded.expected_decoded_hz = rates.expected_decoded_hz;
  run.decoded.overflow_required = rates.overflow_required;
  try {
    std::error_code error;
    if (std::filesystem::is_fifo(reported.stream_file, error)) {  // opening one may take for ever
      run.problem = printable(reported.stream_file.string()) + " is a pipe";
      return run;
    }
    StreamInput input(reported.stream_file);
    run.header = input.reader.header();
    if (!(run.decoded.expected_decoded_hz > 0)) {
      run.problem =
          "the report has no divider of the calibration source, so that no interval can "
          "be expected";
      return run;
    }
    find_ranges(input, settings, chunk_bytes, run);
    fill_charts(reported.stream_file, chunk_bytes, columns, run);
  } catch (const timing::Error& error) {
    run.problem = error.what();
  }
  return run;
}

}  // namespace orvo::inspection
