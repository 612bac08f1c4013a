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
#include <iostream>
#include <string>

#include "orvo/verification/evaluation.h"
#include "support/instrument.h"

namespace orvo::tests {
namespace {

using verification::RunResult;
__extension__ using Wide = __int128;

RunResult judged(const Instrument& instrument) {
  const verification::EvaluationSettings settings;  // with a tolerance of 25 ppm
  verification::TagStatistics statistics;
  instrument.for_each_batch(1 << 16, [&](auto tags) { statistics.add(tags); });
  return judge(statistics, verification::derive_rates(instrument.divider, settings), settings);
}

std::string ppm_text(std::int64_t per_1e12) {
  return std::to_string(1e-6 * static_cast<double>(per_1e12));
}

// Channels 0 and 1 have the largest error of rate that passes for certain and the smallest one that
// fails; no rate shows the event that each loses before its first timestamp. 2 and 3 lose as many
// events as pass, and one more.
TEST(Verdict, IsTrueUpToTheLimits) {
  std::uint64_t seed = 0, verdicts = 0, with_losses = 0;
  double most_off_ppm = 0;
  for (const std::uint32_t divider : {30978U, 3098U, 310U}) {  // 1, 10 and 100 kHz
    for (const unsigned quantum_ps : {1U, 8U, 12U, 4096U}) {
      for (const std::uint64_t jitter_ps : {0U, 3U, 1000U}) {
        SCOPED_TRACE(testing::Message() << divider << ' ' << quantum_ps << ' ' << jitter_ps);
        const std::uint64_t end_ps = (++seed % 2 == 0 ? 1000 : 100) * std::uint64_t{999'900'000};
        const std::uint64_t period_ps = std::uint64_t{divider} * 613272 / 19;
        const std::uint64_t allowed = end_ps / period_ps * 25 / 1'000'000;
        const std::uint64_t tick_ps = 1U << std::countr_zero(quantum_ps);
        // In millionths of a ppm, rounded up: three periods at the ends may be cut off.
        const auto limit = static_cast<std::int64_t>(
            (tick_ps + 2 * jitter_ps) * 1'001'000'000'000 / (end_ps - 3 * period_ps) + 2);
        const std::int64_t sign = seed % 4 < 2 ? 1 : -1, tolerance = 25'000'000;
        const std::uint64_t to_wrap_ps = simulator::random_at(seed, 0) % end_ps;
        const RunResult result = judged(
            {.quantum_ps = quantum_ps,
             .divider = divider,
             .duration_ps = end_ps,
             .sim = "seed=" + std::to_string(seed) + ";jitter_ps=" + std::to_string(jitter_ps) +
                    ";clock_ps=" + std::to_string(simulator::kWrapPs - 1 - to_wrap_ps) +
                    ";rate_error_ppm=0:" + ppm_text(sign * (tolerance - limit)) +
                    ",1:" + ppm_text(-sign * (tolerance + limit)) + ";lose=0:1@0,1:1@0,2:" +
                    std::to_string(allowed) + "@40,3:" + std::to_string(allowed + 1) + "@40"});
        EXPECT_EQ(result.channels[2].count, result.channels[3].count + 1);
        for (std::size_t c = 0; c < simulator::kChannels; ++c) {
          const verification::ChannelResult& channel = result.channels[c];
          EXPECT_EQ(channel.pass, c % 2 == 0) << c << ": " << channel.ppm_error;
          // 19 periods of the perfect source are divider * 613272 ps.
          const Wide perfect = (Wide{channel.count} - 1) * divider * 613272;
          const Wide span = (Wide{channel.last_ps} - channel.first_ps) * 19;
          const double exact_ppm =
              1e-6 * static_cast<double>((perfect - span) * 1'000'000'000'000 / span);
          most_off_ppm = std::max(most_off_ppm, std::abs(channel.ppm_error - exact_ppm));
          ++verdicts;
          with_losses += c != 2 || allowed > 0 ? 1 : 0;
        }
      }
    }
  }
  EXPECT_LE(most_off_ppm, 2e-6);
  std::cout << verdicts << " verdicts, " << with_losses << " of them with lost events, within "
            << most_off_ppm << " ppm of exact arithmetic\n";
}

}  // namespace
}  // namespace orvo::tests
