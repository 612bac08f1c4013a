#include "orvo/verification/evaluation.h"

#include <algorithm>
#include <cmath>

#include "orvo/timing/stream_files.h"

namespace orvo::verification {
namespace {

constexpr double kPartsPerMillion = 1e6;
// Wider records than this are not taken to need overflow records at any rate.
constexpr unsigned kMaxOverflowBits = 30;

/// `last_ps` - `first_ps` in 64 bits, for any two times.
std::int64_t span_between(std::int64_t first_ps, std::int64_t last_ps) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(last_ps) -
                                   static_cast<std::uint64_t>(first_ps));
}

ChannelResult judge_channel(const TagStatistics::Channel& tags, double expected_decoded_hz,
                            const EvaluationSettings& settings) {
  ChannelResult result;
  result.count = tags.count;
  if (tags.count >= 2) {
    result.first_ps = tags.smallest_ps;
    result.last_ps = tags.largest_ps;
    const std::int64_t span_ps = span_between(result.first_ps, result.last_ps);
    if (span_ps > 0) {
      result.measured_hz = static_cast<double>(tags.count - 1) * timing::kPicosecondsPerSecond /
                           static_cast<double>(span_ps);
    }
  }
  if (expected_decoded_hz > 0 && result.measured_hz > 0) {
    result.ppm_error =
        (result.measured_hz - expected_decoded_hz) / expected_decoded_hz * kPartsPerMillion;
  }
  result.pass = tags.count >= settings.min_tags_per_channel && std::isfinite(result.ppm_error) &&
                std::abs(result.ppm_error) <= settings.tolerance_ppm;
  return result;
}

/// Whether the expected time between two events of a channel is more than one record can carry.
bool overflow_required(double expected_decoded_hz, const EvaluationSettings& settings) {
  if (!(expected_decoded_hz > 0) || settings.packed_bits < 1 ||
      settings.packed_bits > kMaxOverflowBits || settings.packed_quantum_ps == 0) {
    return false;
  }
  const auto largest_delta = static_cast<double>((std::uint64_t{1} << settings.packed_bits) - 1);
  return timing::kPicosecondsPerSecond / expected_decoded_hz >
         largest_delta * settings.packed_quantum_ps;
}

constexpr std::size_t kTurn = kChannels;  // tags

/// Whether each tag after the first turn is of the channel of the one a turn before, and later.
/// `tags`: whole turns.
bool come_in_turns(std::span<const timing::TimeTag> tags) {
  std::array<timing::TimeTag, kTurn> last;
  std::copy_n(tags.begin(), kTurn, last.begin());
  for (tags = tags.subspan(kTurn); !tags.empty(); tags = tags.subspan(kTurn)) {
    for (std::size_t i = 0; i < kTurn; ++i) {
      if (tags[i].channel != last[i].channel || tags[i].time_ps <= last[i].time_ps) {
        return false;
      }
      last[i].time_ps = tags[i].time_ps;
    }
  }
  return true;
}

}  // namespace

EvaluationSettings settings_of(const timing::StreamFileHeader& header) {
  EvaluationSettings settings;  // a 0 in the header means the default
  settings.channel_mask = header.channel_mask;
  if (header.stream_format != timing::Format::packed_delta) {
    settings.packed_bits = 0;
    return settings;
  }
  if (header.delta_bits != 0) {
    settings.packed_bits = header.delta_bits;
  }
  if (header.quantum_ps != 0) {
    settings.packed_quantum_ps = header.quantum_ps;
  }
  return settings;
}

/// Channels fire in turns as a rule: then the first turn and the last one say what all of them do.
void TagStatistics::add(std::span<const timing::TimeTag> tags) {
  constexpr std::size_t kTags = 64 * kTurn;
  for (; tags.size() >= kTags; tags = tags.subspan(kTags)) {
    const std::span<const timing::TimeTag> some = tags.first(kTags);
    if (come_in_turns(some)) {
      add_each(some.first(kTurn), kTags / kTurn - 1);
      add_each(some.last(kTurn), 1);
    } else {
      add_each(some, 1);
    }
  }
  add_each(tags, 1);
}

/// Each of the tags stands for so many.
void TagStatistics::add_each(std::span<const timing::TimeTag> tags, std::uint64_t count) {
  for (const timing::TimeTag& tag : tags) {
    Channel& channel = channels_[std::min<std::size_t>(tag.channel, kChannels)];
    channel.count += count;
    if (tag.time_ps > channel.largest_ps) [[likely]] {
      channel.largest_ps = tag.time_ps;
    }
    if (tag.time_ps < channel.smallest_ps) [[unlikely]] {  // min() would write it for every tag
      channel.smallest_ps = tag.time_ps;
    }
  }
}

void TagStatistics::add(std::size_t channel, const Channel& counted) {
  Channel& sum = channels_[std::min(channel, kChannels)];
  sum.count += counted.count;
  sum.smallest_ps = std::min(sum.smallest_ps, counted.smallest_ps);
  sum.largest_ps = std::max(sum.largest_ps, counted.largest_ps);
}

std::uint64_t TagStatistics::tags() const noexcept {
  std::uint64_t tags = 0;
  for (const Channel& channel : channels_) {
    tags += channel.count;
  }
  return tags;
}

Rates derive_rates(std::uint32_t divider, const EvaluationSettings& settings) {
  if (divider == 0) {
    return {};
  }
  Rates rates{.divider = divider};
  rates.effective_hz = kCalibrationBaseHz / divider;
  rates.expected_decoded_hz = rates.effective_hz / kDecodedTimestampSecondsPerSecond;
  rates.overflow_required = overflow_required(rates.expected_decoded_hz, settings);
  return rates;
}

RunResult judge(const TagStatistics& statistics, const Rates& rates,
                const EvaluationSettings& settings) {
  RunResult result;
  static_cast<Rates&>(result) = rates;
  result.decoded_tags = statistics.tags();
  result.pass = true;
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    result.channels[channel] =
        judge_channel(statistics.channel(channel), rates.expected_decoded_hz, settings);
    if (channel_counts(settings.channel_mask, channel)) {
      result.pass = result.pass && result.channels[channel].pass;
    }
  }
  return result;
}

TagStatistics read_tag_statistics(const std::string& path, std::uint64_t payload_bytes,
                                  std::uint64_t chunk_bytes,
                                  const timing::InterruptionCheck& interrupted) {
  timing::StreamFileReader reader;
  reader.interrupted = interrupted;
  reader.open(path);
  TagStatistics statistics;
  reader.for_each_batch(chunk_bytes, [&](auto tags) { statistics.add(tags); });
  if (reader.read_bytes() - reader.payload_start_bytes() != payload_bytes) {
    throw timing::Error(OT_ERR_IO, "StreamFileReader", "payload is not as long as recorded");
  }
  return statistics;
}

}  // namespace orvo::verification
