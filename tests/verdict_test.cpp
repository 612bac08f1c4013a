// Can the verdict be trusted? Simulated instruments with known faults, decoded and judged.
//
// With a tick q, a jitter of up to j and S from the first to the last timestamp, a computed ppm is
// off by less than L = 10^6 (q + 2j) / S; k lost events of n weigh 10^6 k / (n - 1) ppm. The
// verdict is certain where the true error is L or more away from the tolerance.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

#include "orvo/timing/stream_decoder.h"
#include "orvo/verification/evaluation.h"
#include "support/instrument.h"

namespace orvo::tests {
namespace {

using simulator::kChannels;
__extension__ using Wide = __int128;

constexpr std::uint32_t kDividers[] = {30978, 3098, 310};  // 1, 10 and 100 kHz

Instrument instrument_of(std::uint32_t divider, std::uint64_t host_ms) {
  Instrument instrument{{}, {}, divider};
  instrument.header.mode = timing::Mode::internal;
  instrument.settings.pace = simulator::Pace::unpaced_ps;
  instrument.settings.end = host_ms * 999'900'000;  // the instrument's time runs 0.9999 s a second
  return instrument;
}

verification::RunResult judged(const Instrument& instrument,
                               const verification::EvaluationSettings& settings = {}) {
  timing::StreamDecoder decoder(instrument.header);
  verification::TagStatistics statistics;
  instrument.for_each_chunk(1 << 16, [&](auto bytes) {
    decoder.append(bytes);
    statistics.add(decoder.feed());
  });
  return judge(statistics, verification::derive_rates(instrument.divider, settings), settings);
}

TEST(Verdict, SeesEachLostEvent) {
  for (const std::uint32_t divider : kDividers) {
    Instrument instrument = instrument_of(divider, 1000);
    instrument.settings.clock_ps = simulator::kWrapPs - instrument.settings.end / 2;  // wraps
    const verification::RunResult clean = judged(instrument);
    const std::uint64_t n = clean.channels[2].count;
    const std::uint64_t allowed = (n - 1) * 25 / 1'000'000;  // at 25 ppm
    for (const std::uint64_t lost :
         {std::uint64_t{1}, allowed, allowed + 1, std::min<std::uint64_t>(n / 3, 1000)}) {
      // In the middle; before the first timestamp and after the last one no rate shows them.
      for (const std::uint64_t first : {n / 2, std::uint64_t{0}, n - lost}) {
        SCOPED_TRACE(testing::Message() << divider << ": " << lost << " from " << first);
        instrument.settings.losses = {{2, lost, first}};
        const verification::RunResult result = judged(instrument);
        const bool shows = first == n / 2;
        const double ppm =
            shows ? -1e6 * static_cast<double>(lost) / static_cast<double>(n - 1) : 0;
        EXPECT_EQ(result.channels[2].count, n - lost);
        EXPECT_NEAR(result.channels[2].ppm_error, ppm, 0.001);
        EXPECT_EQ(result.channels[2].pass, !shows || lost <= allowed);
        EXPECT_EQ(result.pass, result.channels[2].pass);
        EXPECT_EQ(result.channels[1].count, clean.channels[1].count);
      }
    }
  }
}

TEST(Verdict, IsTrueWithinTickAndJitter) {
  std::uint64_t seed = 0;
  for (const std::uint32_t divider : kDividers) {
    for (const unsigned quantum_ps : {1U, 8U, 12U, 4096U}) {
      for (const std::uint64_t jitter_ps : {0U, 3U, 1000U}) {
        SCOPED_TRACE(testing::Message() << divider << ' ' << quantum_ps << ' ' << jitter_ps);
        Instrument instrument = instrument_of(divider, ++seed % 2 == 0 ? 350 : 100);
        instrument.header.quantum_ps = static_cast<std::uint16_t>(quantum_ps);
        simulator::Settings& told = instrument.settings;
        told.seed = seed;
        told.jitter_ps = jitter_ps;
        told.clock_ps = simulator::random_at(seed, 0) % (simulator::kWrapPs / 2);
        const std::uint64_t tick_ps = 1U << std::countr_zero(quantum_ps);
        // In millionths of a ppm, rounded up: the first and the last period may be cut off.
        const auto limit =
            static_cast<std::int64_t>((tick_ps + 2 * jitter_ps) * 1'001'000'000'000 /
                                      (told.end - std::uint64_t{divider} * 2 * 613272 / 19)) +
            2;
        const std::int64_t tolerance = 25'000'000;
        told.rate_error_per_1e12 = {tolerance - limit, limit - tolerance, tolerance + limit,
                                    -tolerance - limit};
        const verification::RunResult result = judged(instrument);
        for (std::size_t c = 0; c < kChannels; ++c) {
          const verification::ChannelResult& channel = result.channels[c];
          EXPECT_EQ(channel.pass, c < 2) << c << ": " << channel.ppm_error;
          // 19 periods of the perfect source are divider * 613272 ps.
          const Wide perfect = (Wide{channel.count} - 1) * divider * 613272;
          const Wide span = (Wide{channel.last_ps} - channel.first_ps) * 19;
          EXPECT_NEAR(channel.ppm_error,
                      1e-6 * static_cast<double>((perfect - span) * 1'000'000'000'000 / span),
                      2e-6);
        }
      }
    }
  }
}

}  // namespace
}  // namespace orvo::tests
