// The events of all channels of one stream, in the order of their times.
//
// Threads: a source belongs to one thread. Ownership: copies what it needs of the settings.
// Errors: none. Times are exact at any distance: they are rounded once, to whole picoseconds.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "orvo/simulator/instrument.h"
#include "orvo/simulator/settings.h"
#include "orvo/timing/stream_header.h"

namespace orvo::simulator {

/// A period of whole_ps + remainder / divisor picoseconds of instrument time.
struct Period {
  std::uint64_t whole_ps = 0;
  std::uint64_t remainder = 0;
  std::uint64_t divisor = 1;
};

/// Periods in instrument time, which runs 0.9999 s per second, on a channel whose rate is too high
/// by `error_per_1e12` parts in 10^12: of the calibration source, (712500000/23)/divider Hz, and of
/// an input.
[[nodiscard]] Period calibration_period(std::uint32_t divider, std::int64_t error_per_1e12);
[[nodiscard]] Period input_period(std::uint64_t hz, std::int64_t error_per_1e12);

struct SourceConfig {
  timing::Mode mode = timing::Mode::internal;
  std::uint8_t channel_mask = 0;  ///< 0: all
  std::uint32_t divider = 1;
  std::uint64_t start_ps = 0;
};

struct StreamConfig {
  timing::Format format = timing::Format::packed_delta;
  std::uint8_t delta_bits = 16;  ///< 1 to 31
  std::uint16_t quantum_ps = 8;  ///< not 0; its trailing zero bits give the tick: 4 ps for 12 ps
  SourceConfig source;
};

class EventSource {
 public:
  EventSource(const Settings& settings, const SourceConfig& config);

  /// The next event. Its time is kTimeLineEndPs or later when there is none, kNever when no channel
  /// fires at all.
  [[nodiscard]] const Event& front() const { return queue_[0]; }

  void pop() {
    const unsigned number = queue_[0].channel;
    advance(channels_[number]);
    insert({channels_[number].next_ps, number});
  }

 private:
  struct Channel {
    std::uint64_t next_ps = kNever;
    std::uint64_t nominal_ps = 0;
    std::uint64_t fraction = 0;  // of a picosecond, in units of 1 / period.divisor
    std::uint64_t number = 0;    // of the next event
    std::uint64_t next_loss = kNever;
    std::uint64_t jitter_seed = 0;
    std::uint64_t jitter_values = 1;
    Period period;
    std::vector<Loss> losses;  // the next one last
  };

  static void skip(Channel& channel, std::uint64_t count);
  static void skip_losses(Channel& channel);

  static void step(Channel& channel) {
    channel.nominal_ps += channel.period.whole_ps;
    channel.fraction += channel.period.remainder;
    const std::uint64_t carry = channel.fraction >= channel.period.divisor ? 1 : 0;
    channel.fraction -= carry * channel.period.divisor;
    channel.nominal_ps += carry;
    ++channel.number;
  }

  static void fire(Channel& channel) {
    const std::uint64_t random = random_at(channel.jitter_seed, channel.number) >> 32;
    channel.next_ps = channel.nominal_ps + ((random * channel.jitter_values) >> 32);
  }

  static void advance(Channel& channel) {
    step(channel);
    if (channel.number == channel.next_loss) {
      skip_losses(channel);
    }
    fire(channel);
  }

  /// Moves the front's channel to its new place. Channels mostly fire in turn, so the branch is
  /// predicted well and no event waits for the times of the one before.
  void insert(const Event& event) {
    unsigned place = 0;
    for (; place + 1 < kChannels && queue_[place + 1].time_ps <= event.time_ps; ++place) {
      queue_[place] = queue_[place + 1];
    }
    queue_[place] = event;
  }

  void set_up(unsigned number, const Settings& settings, const SourceConfig& config);

  std::array<Channel, kChannels> channels_;
  std::array<Event, kChannels> queue_;  // in the order of their times
};

}  // namespace orvo::simulator
