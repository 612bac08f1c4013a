// Streams of days, straight from the simulated instrument into the decoder: every event is there,
// with its exact time, and the memory does not grow.
//
//     campaign_days_of_data [HOURS [EVENTS]]     slow streams of HOURS, and a fast one of EVENTS
//
// 24 hours wrap the instrument's clock 6,035 times.
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "orvo/timing/stream_decoder.h"
#include "support/instrument.h"

namespace {

using namespace orvo;
using simulator::kWrapPs;
using timing::Mode;
__extension__ using Wide = __int128;

constexpr std::uint64_t kHourPs = 3'600'000'000'000'000 / 10'000 * 9'999;  // of the instrument

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

/// Every event before `end_ps` came, and first and last fit the calibration source's exact period,
/// which does not rest on the list of events: one tick of 8 ps and a jitter of 3 ps either way.
bool complete(const tests::Witness& witness, std::uint64_t end_ps, std::uint64_t divider) {
  bool complete = witness.has_all_before(end_ps);
  for (const auto& channel : witness.channels) {
    const Wide off =
        Wide{channel.last_ps - channel.first_ps} * 19 - Wide{channel.count - 1} * divider * 613272;
    complete = complete && (divider == 0 || (off < 14 * 19 && -off < 14 * 19));
  }
  return complete;
}

bool exact(const Days& days) {
  tests::Instrument instrument;
  instrument.divider = days.divider;
  instrument.header.mode = days.divider == 0 ? Mode::external : Mode::internal;
  instrument.header.delta_bits = days.bits;
  instrument.settings.pace = simulator::Pace::unpaced_ps;
  instrument.settings.end = days.length_ps;
  instrument.settings.external_hz = {50, 20, 10, 2};
  const std::uint64_t end_ps = instrument.settings.clock_ps + days.length_ps;
  const auto payload = instrument.payload();
  timing::StreamDecoder decoder(instrument.header);
  tests::Witness witness(instrument);
  constexpr unsigned kWarmChunks = 16;  // by then all buffers have their size
  long warm_kib = 0;
  unsigned chunks = 0;
  const auto started = std::chrono::steady_clock::now();
  for (;; ++chunks) {
    const auto bytes = payload->next(1 << 16, simulator::kNever - 1);
    if (bytes.empty()) break;
    decoder.append(bytes);
    if (!witness.take(decoder.feed())) return false;
    if (chunks == kWarmChunks) warm_kib = max_rss_kib();
  }
  const long growth_kib = chunks > kWarmChunks ? max_rss_kib() - warm_kib : 0;
  const bool all = complete(witness, end_ps, days.divider);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - started;
  std::printf("%2u bits, divider %8u: %10ju events, %4ju wraps, complete %d, +%ld KiB, %.1f s\n",
              days.bits, days.divider, witness.count(), end_ps / kWrapPs, all, growth_kib,
              seconds.count());
  return all && growth_kib < 1024;
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t hours = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 24;
  const std::uint64_t events = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 10'000'000;
  constexpr std::uint32_t kDivider1Hz = 30'978'261;
  constexpr std::uint32_t kDivider100kHz = 310;
  const std::uint64_t length_ps = hours * kHourPs;
  bool all =
      exact({16, kDivider100kHz, events * kDivider100kHz * (613272 / simulator::kChannels) / 19});
  constexpr std::uint8_t kWidths[] = {8, 16, 24, 31};
  for (const std::uint8_t bits : kWidths) {
    all = exact({bits, kDivider1Hz, length_ps}) && all;
    all = exact({bits, kDivider1Hz / 10, length_ps}) && all;
    all = exact({bits, 0, length_ps}) && all;
  }
  return all ? 0 : 1;
}
