// Streams of days, straight from the simulated instrument into the decoder: every event is there,
// with its exact time, and the memory does not grow.
//
//     campaign_days_of_data [HOURS [EVENTS]]     slow streams of HOURS, and a fast one of EVENTS
//
// 24 hours wrap the instrument's clock 6,035 times.
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "orvo/simulator/payload.h"
#include "orvo/timing/stream_decoder.h"

namespace {

using namespace orvo;
using simulator::kChannels;
using simulator::kWrapPs;
using timing::Mode;
__extension__ using Wide = __int128;

constexpr std::uint64_t kHourPs = 3'600'000'000'000'000 / 10'000 * 9'999;  // of the instrument
constexpr std::uint64_t kTickPs = 8;

struct Days {
  std::uint8_t bits;
  std::uint32_t divider;  // of the calibration source; 0: the inputs
  std::uint64_t length_ps;
};

long max_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

/// Takes tags against the events that the instrument had.
class Witness {
 public:
  Witness(const simulator::Settings& settings, const simulator::SourceConfig& config)
      : events_(settings, config) {}

  bool take(std::span<const timing::TimeTag> tags) {
    for (const timing::TimeTag& tag : tags) {
      const simulator::Event event = events_.front();
      events_.pop();
      Channel& channel = channels_[event.channel];
      const auto time_ps = static_cast<std::uint64_t>(tag.time_ps);
      if (channel.count++ == 0) {
        // A channel's time line begins with the clock's reading at its first event.
        channel.base_ps = event.time_ps - event.time_ps % kWrapPs;
        channel.first_ps = time_ps;
      }
      channel.last_ps = time_ps;
      if (tag.channel != event.channel ||
          time_ps != event.time_ps - event.time_ps % kTickPs - channel.base_ps) {
        std::fprintf(stderr, "event %ju of channel %u at %ju ps: a tag of channel %u at %ju ps\n",
                     channel.count, event.channel, event.time_ps, tag.channel, time_ps);
        return false;
      }
    }
    return true;
  }

  /// Every event before `end_ps` came, and first and last fit the calibration source's exact
  /// period, which does not rest on the list of events: one tick and a jitter of 3 ps either way.
  [[nodiscard]] bool complete(std::uint64_t end_ps, std::uint64_t divider) const {
    bool complete = events_.front().time_ps >= end_ps;
    for (const Channel& channel : channels_) {
      const Wide off = Wide{channel.last_ps - channel.first_ps} * 19 -
                       Wide{channel.count - 1} * divider * 613272;
      complete = complete && (divider == 0 || (off < 14 * 19 && -off < 14 * 19));
    }
    return complete;
  }

  [[nodiscard]] std::uint64_t count() const {
    std::uint64_t count = 0;
    for (const Channel& channel : channels_) count += channel.count;
    return count;
  }

 private:
  struct Channel {
    std::uint64_t count = 0, base_ps = 0, first_ps = 0, last_ps = 0;
  };

  simulator::EventSource events_;
  std::array<Channel, kChannels> channels_;
};

bool exact(const Days& days) {
  simulator::Settings settings;
  settings.pace = simulator::Pace::unpaced_ps;
  settings.end = days.length_ps;
  settings.external_hz = {50, 20, 10, 2};
  timing::StreamFileHeader header;
  header.mode = days.divider == 0 ? Mode::external : Mode::internal;
  header.delta_bits = days.bits;
  const simulator::SourceConfig source = {header.mode, header.channel_mask, days.divider,
                                          settings.clock_ps};
  const auto payload = simulator::generate_payload(
      settings, {header.stream_format, days.bits, header.quantum_ps, source});
  timing::StreamDecoder decoder(header);
  Witness witness(settings, source);
  constexpr unsigned kWarmChunks = 16;  // by then all buffers have their size
  long warm_kib = 0;
  unsigned chunks = 0;
  const auto started = std::chrono::steady_clock::now();
  for (;; ++chunks) {
    const auto bytes = payload->next(1 << 16, simulator::kNever - 1);
    if (bytes.empty()) break;
    decoder.input_buffer.append(bytes);
    if (!witness.take(decoder.feed())) return false;
    if (chunks == kWarmChunks) warm_kib = max_rss_kib();
  }
  const long growth_kib = chunks > kWarmChunks ? max_rss_kib() - warm_kib : 0;
  const bool complete = witness.complete(settings.clock_ps + settings.end, days.divider);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - started;
  std::printf("%2u bits, divider %8u: %10ju events, %4ju wraps, complete %d, +%ld KiB, %.1f s\n",
              days.bits, days.divider, witness.count(),
              (settings.clock_ps + settings.end) / kWrapPs, complete, growth_kib, seconds.count());
  return complete && growth_kib < 1024;
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t hours = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 24;
  const std::uint64_t events = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 10'000'000;
  constexpr std::uint32_t kDivider1Hz = 30'978'261;
  constexpr std::uint32_t kDivider100kHz = 310;
  const std::uint64_t length_ps = hours * kHourPs;
  bool all = exact({16, kDivider100kHz, events * kDivider100kHz * (613272 / kChannels) / 19});
  constexpr std::uint8_t kWidths[] = {8, 16, 24, 31};
  for (const std::uint8_t bits : kWidths) {
    all = exact({bits, kDivider1Hz, length_ps}) && all;
    all = exact({bits, kDivider1Hz / 10, length_ps}) && all;
    all = exact({bits, 0, length_ps}) && all;
  }
  return all ? 0 : 1;
}
