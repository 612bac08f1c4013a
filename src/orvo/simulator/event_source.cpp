#include "orvo/simulator/event_source.h"

#include <algorithm>

namespace orvo::simulator {
namespace {

__extension__ using Wide = unsigned __int128;

constexpr std::uint64_t kExactRate = 1'000'000'000'000;  // in the unit of rate errors

/// numerator / divisor picoseconds, divided by the relative rate.
Period make_period(std::uint64_t numerator, std::uint64_t divisor, std::int64_t error_per_1e12) {
  const std::uint64_t scaled = divisor * (kExactRate + static_cast<std::uint64_t>(error_per_1e12));
  const Wide wide = Wide{numerator} * kExactRate;
  return {static_cast<std::uint64_t>(wide / scaled), static_cast<std::uint64_t>(wide % scaled),
          scaled};
}

/// The delay of cables and comparators: fixed, below 1 ns, increasing with the channel's number.
std::uint64_t skew_ps(std::uint64_t seed, unsigned channel) {
  constexpr std::uint64_t kSkewPs = 250;
  return channel * kSkewPs + random_at(seed ^ 0x5CE3, channel) % kSkewPs;
}

}  // namespace

Period calibration_period(std::uint32_t divider, std::int64_t error_per_1e12) {
  // divider * 23 / 712500000 s * 0.9999 * 10^12 ps/s = divider * 613272 / 19 ps
  return make_period(std::uint64_t{divider} * 613'272, 19, error_per_1e12);
}

Period input_period(std::uint64_t hz, std::int64_t error_per_1e12) {
  return make_period(999'900'000'000, hz, error_per_1e12);
}

EventSource::EventSource(const Settings& settings, const SourceConfig& config) {
  const unsigned selected = (config.channel_mask & 0x0FU) == 0 ? 0x0FU : config.channel_mask;
  for (unsigned number = 0; number < kChannels; ++number) {
    const bool fires = ((selected >> number) & 1U) != 0 && !settings.silent[number];
    if (fires) {
      set_up(number, settings, config);
    }
    queue_[number] = {channels_[number].next_ps, number};
  }
  const auto earlier = [](const Event& a, const Event& b) { return a.time_ps < b.time_ps; };
  std::stable_sort(queue_.begin(), queue_.end(), earlier);
}

void EventSource::set_up(unsigned number, const Settings& settings, const SourceConfig& config) {
  Channel& channel = channels_[number];
  const std::int64_t error_per_1e12 = settings.rate_error_per_1e12[number];
  // An event that is late by half a period at most cannot pass the next one of its channel.
  constexpr std::uint64_t kInputJitterPs = 2'000'000'000;  // twice this has 32 bits
  std::uint64_t jitter_ps = settings.jitter_ps;
  if (config.mode == timing::Mode::internal) {
    channel.period = calibration_period(config.divider, error_per_1e12);
  } else {
    channel.period = input_period(settings.external_hz[number], error_per_1e12);
    jitter_ps = kInputJitterPs;
  }
  jitter_ps = std::min({jitter_ps, channel.period.whole_ps / 4, kInputJitterPs});
  channel.jitter_values = 2 * jitter_ps + 1;
  channel.jitter_seed = random_at(settings.seed, number);
  channel.nominal_ps = config.start_ps + skew_ps(settings.seed, number);
  for (const Loss& loss : settings.losses) {
    if (loss.channel == number) {
      channel.losses.push_back(loss);
    }
  }
  const auto by_place = [](const Loss& a, const Loss& b) { return a.first > b.first; };
  std::sort(channel.losses.begin(), channel.losses.end(), by_place);
  if (!channel.losses.empty()) {
    channel.next_loss = channel.losses.back().first;
  }
  if (channel.number == channel.next_loss) {
    skip_losses(channel);
  }
  fire(channel);
}

void EventSource::skip(Channel& channel, std::uint64_t count) {
  const Period& period = channel.period;
  const Wide fraction = Wide{count} * period.remainder + channel.fraction;
  const Wide nominal_ps =
      channel.nominal_ps + Wide{count} * period.whole_ps + fraction / period.divisor;
  channel.nominal_ps = static_cast<std::uint64_t>(std::min(nominal_ps, Wide{kTimeLineEndPs}));
  channel.fraction = static_cast<std::uint64_t>(fraction % period.divisor);
  channel.number += count;
}

void EventSource::skip_losses(Channel& channel) {
  // Losses that overlap add up.
  while (!channel.losses.empty() && channel.losses.back().first <= channel.number) {
    skip(channel, channel.losses.back().count);
    channel.losses.pop_back();
  }
  channel.next_loss = channel.losses.empty() ? kNever : channel.losses.back().first;
}

}  // namespace orvo::simulator
