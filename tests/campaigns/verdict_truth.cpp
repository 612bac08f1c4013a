// Can the verdict be trusted? Simulated instruments with known faults, decoded and judged.
//
//     campaign_verdict_truth [ROUNDS]     each round repeats everything with another seed
//
// With a tick q, a jitter of up to j and S from the first to the last timestamp, a computed ppm is
// off by less than L = 10^6 (q + 2j) / S; k lost events of n weigh 10^6 k / (n - 1) ppm. The
// verdict is certain where the true error is L or more away from the tolerance.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "orvo/timing/stream_decoder.h"
#include "orvo/verification/evaluation.h"
#include "support/instrument.h"

namespace {

using namespace orvo;
using simulator::kChannels;
using simulator::Loss;
using verification::ChannelResult;
__extension__ using Wide = __int128;

constexpr std::uint32_t kDividers[] = {30978, 3098, 310};  // 1, 10 and 100 kHz
constexpr std::int64_t kPpm = 1'000'000;                   // in the unit of all errors here
constexpr std::int64_t kExactRate = kPpm * kPpm;           // 1 in it

int failures = 0;

struct Run {
  Run(std::uint64_t seed, std::uint32_t source, std::uint64_t host_ms) : divider(source) {
    settings.seed = seed;
    settings.pace = simulator::Pace::unpaced_ps;
    settings.end = host_ms * 999'900'000;  // the instrument's time runs 0.9999 s a second
  }

  /// A whole tick, and the jitter of both ends.
  [[nodiscard]] std::uint64_t bound_ps() const {
    return (std::uint64_t{1} << std::countr_zero(quantum_ps)) + 2 * settings.jitter_ps;
  }

  /// L in millionths of a ppm, rounded up: the first and the last period may be cut off.
  [[nodiscard]] std::int64_t limit() const {
    const std::uint64_t span_ps = settings.end - std::uint64_t{divider} * 2 * 613272 / 19;
    return static_cast<std::int64_t>(bound_ps() * 1'001'000'000'000 / span_ps) + 2;
  }

  simulator::Settings settings;
  std::uint32_t divider;
  std::uint16_t quantum_ps = 8;
  verification::EvaluationSettings evaluation;
};

void expect(bool holds, const Run& run, unsigned channel, const ChannelResult& seen) {
  if (holds || ++failures > 20) return;
  const auto& told = run.settings;
  std::fprintf(stderr,
               "divider %u clock %ju end %ju seed %ju quantum %u jitter %ju error %jd lost %zu: "
               "channel %u has %ju, %.9f ppm, pass %d at %.6f\n",
               run.divider, told.clock_ps, told.end, told.seed, run.quantum_ps, told.jitter_ps,
               told.rate_error_per_1e12[channel], told.losses.size(), channel, seen.count,
               seen.ppm_error, seen.pass, run.evaluation.tolerance_ppm);
}

using Times = std::array<std::vector<std::int64_t>, kChannels>;

/// Streams, decodes and judges; appends the timestamps to `times`.
verification::RunResult judged(const Run& run, Times& times) {
  tests::Instrument instrument{{}, run.settings, run.divider};
  instrument.header.mode = timing::Mode::internal;
  instrument.header.quantum_ps = run.quantum_ps;
  const auto payload = instrument.payload();
  timing::StreamDecoder decoder(instrument.header);
  verification::TagStatistics statistics;
  std::span<std::uint8_t> bytes;
  while (!(bytes = payload->next(1 << 16, simulator::kNever - 1)).empty()) {
    decoder.append(bytes);
    const auto tags = decoder.feed();
    statistics.add(tags);
    for (const auto& tag : tags) times[tag.channel].push_back(tag.time_ps);
  }
  return verification::judge(statistics, verification::derive_rates(run.divider, run.evaluation),
                             run.evaluation);
}

/// `count` of a channel's n events: in a row, spread over all, the first, the last.
std::vector<Loss> losses_of(std::uint64_t count, std::uint64_t n, unsigned kind,
                            std::uint64_t random) {
  const std::uint64_t stride = kind == 1 && count > 0 ? (n - 2) / count : 1;
  const std::uint64_t firsts[] = {1 + random % (n - 1 - count), 1 + random % stride, 0, n - count};
  std::vector<Loss> losses(count, Loss{static_cast<unsigned>(random % 4), 1, firsts[kind]});
  for (std::uint64_t i = 0; i < count; ++i) losses[i].first += i * stride;
  return losses;
}

void expect_losses_seen(const Run& run, Times expected, bool inside) {
  Times times;
  const auto result = judged(run, times);
  double ppm[kChannels] = {};
  const auto periods = static_cast<double>(expected[0].size() - 1);
  for (auto loss = run.settings.losses.rbegin(); loss != run.settings.losses.rend(); ++loss) {
    auto& left = expected[loss->channel];
    if (inside) ppm[loss->channel] -= 1e6 / periods;
    left.erase(left.begin() + static_cast<std::ptrdiff_t>(loss->first));
  }
  for (unsigned c = 0; c < kChannels; ++c) {
    const auto& seen = result.channels[c];
    expect(times[c] == expected[c] && seen.count == expected[c].size() &&
               std::abs(seen.ppm_error - ppm[c]) < 0.001 && seen.pass == (ppm[c] >= -25) &&
               result.pass == (*std::min_element(ppm, ppm + kChannels) >= -25),
           run, c, seen);
  }
}

void lose_events(Run run) {
  const std::uint64_t seed = run.settings.seed;
  // Every other round with the clock's wrap in mid-run.
  if (seed % 2 == 0) run.settings.clock_ps = simulator::kWrapPs - run.settings.end / 2;
  Times clean;
  static_cast<void>(judged(run, clean));
  const std::uint64_t n = clean[0].size();
  const std::uint64_t allowed = (n - 1) * 25 / 1'000'000;  // at 25 ppm
  if (seed == 1) std::printf("%ju events: %ju lost pass, %ju fail\n", n, allowed, allowed + 1);
  const std::uint64_t counts[] = {0, 1, 2, allowed, allowed + 1, run.divider == 310 ? 1000U : 3U};
  for (const std::uint64_t count : counts) {
    for (unsigned kind = 0; kind < 4; ++kind) {
      const std::uint64_t random = simulator::random_at(seed, count * 4 + kind);
      run.settings.losses = losses_of(count, clean[random % 4].size(), kind, random);
      expect_losses_seen(run, clean, kind < 2);
    }
  }
}

double worst_span = 0;  // in units of its bound
double worst_ppm = 0;   // a computed one against the exact one

void expect_truth(const Run& run, std::int64_t tolerance) {
  Times times;
  const auto result = judged(run, times);
  for (unsigned c = 0; c < kChannels; ++c) {
    const auto& seen = result.channels[c];
    const std::int64_t error = run.settings.rate_error_per_1e12[c];
    // 19 periods of the perfect source are divider * 613272 ps.
    const Wide perfect = (Wide{seen.count} - 1) * run.divider * 613272;
    const Wide span = std::max(Wide{seen.last_ps} - seen.first_ps, Wide{1}) * 19;
    const auto off = static_cast<double>(span * (kExactRate + error) - perfect * kExactRate) /
                     static_cast<double>(Wide{run.bound_ps()} * 19 * (kExactRate + error));
    const auto exact_ppm = static_cast<double>((perfect - span) * kExactRate * kPpm / span) * 1e-12;
    const double ppm_off = std::abs(seen.ppm_error - exact_ppm);
    const bool enough = seen.count >= run.evaluation.min_tags_per_channel;
    const std::int64_t room = tolerance - std::abs(error);
    const bool certain = !enough || std::abs(room) >= run.limit();
    const double exact_room = run.evaluation.tolerance_ppm - std::abs(exact_ppm);
    expect(std::abs(off) < 1 && ppm_off < 1e-6 && (!certain || seen.pass == (enough && room > 0)) &&
               (!enough || std::abs(exact_room) < 1e-8 || seen.pass == (exact_room > 0)),
           run, c, seen);
    worst_span = std::max(worst_span, std::abs(off));
    worst_ppm = std::max(worst_ppm, ppm_off);
  }
}

/// Errors from L below the tolerance to more than L above it, of either sign.
void tell_errors(Run run, std::int64_t tolerance) {
  run.evaluation.tolerance_ppm = static_cast<double>(tolerance) * 1e-6;
  for (int half = -2; half < 4; half += 2) {
    const std::int64_t a = tolerance + run.limit() * half / 2;
    const std::int64_t b = tolerance + run.limit() * (half + 1) / 2;
    run.settings.rate_error_per_1e12 = {a, -a, b, -b};
    expect_truth(run, tolerance);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t rounds = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
  constexpr std::uint16_t kQuantaPs[] = {1, 8, 12, 4096};
  constexpr std::uint64_t kJittersPs[] = {0, 3, 1000};
  constexpr std::uint64_t kHostMs[] = {50, 350, 1000, 4000};
  for (std::uint64_t i = 0; i < rounds * 9; ++i) {
    lose_events(Run(1 + i / 9, kDividers[i % 3], kHostMs[1 + i / 3 % 3]));
  }
  for (std::uint64_t i = 0; i < rounds * 108; ++i) {
    Run run = Run(1 + i / 108, kDividers[i % 3], kHostMs[i / 3 % 3]);
    run.quantum_ps = kQuantaPs[i / 9 % 4];
    run.settings.jitter_ps = kJittersPs[i / 36 % 3];
    // Not near the clock's wrap, which only quanta that are multiples of 8 cross unharmed.
    run.settings.clock_ps = simulator::random_at(i, 0) % (simulator::kWrapPs / 2);
    tell_errors(run, 25 * kPpm);
    tell_errors(run, run.limit());
  }
  std::printf("worst span: %.3f of q + 2j; worst ppm: %.2g off\n", worst_span, worst_ppm);
  return failures == 0 ? 0 : 1;
}
