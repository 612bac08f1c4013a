// Streams of the simulated instrument through the decoder: exact where nothing is damaged, judged
// truly, and as good as can be where something is.
//
// ORVO_LONG_STREAMS multiplies the length of the long ones (default 1: a million events, and
// hours).
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "orvo/verification/evaluation.h"
#include "support/decoding.h"
#include "support/instrument.h"

namespace orvo::tests {
namespace {

using timing::Format;
using timing::Mode;

constexpr std::uint64_t kSecondPs = 999'900'000'000;  // of the instrument
constexpr std::uint64_t kWrapPs = simulator::kWrapPs;

/// Every event of the stream comes as a tag; returns how many.
std::uint64_t expect_exact(const Instrument& c) {
  SCOPED_TRACE("bits " + std::to_string(c.bits) + " quantum " + std::to_string(c.quantum_ps) +
               " mask " + std::to_string(c.mask) + " divider " + std::to_string(c.divider) + " " +
               c.sim);
  Witness witness(c);
  bool exact = true;
  c.for_each_batch(8192, [&](auto tags) { exact = exact && witness.take(tags); });
  EXPECT_TRUE(exact);
  EXPECT_GT(witness.count(), 100U);
  EXPECT_TRUE(witness.has_all_before(c.settings().clock_ps + c.duration_ps));
  return witness.count();
}

TEST(SimulatedStream, DecodesExactly) {
  constexpr auto kPacked = Format::packed_delta;
  constexpr auto kInside = Mode::internal;
  constexpr auto kOutside = Mode::external;
  const unsigned quanta[] = {8, 16, 1000, 32768, 1, 12, 7};
  const unsigned masks[] = {0x0, 0xF, 0x5, 0x1, 0xE};
  const std::string fast = "external_hz=3000000,1000000,2000000,800000";
  for (unsigned bits = 1; bits <= 31; ++bits) {
    const unsigned quantum_ps = quanta[bits % 7];
    const std::string phase = "sync_interval=25;bit_phase=" + std::to_string(bits * 5 % 34);
    expect_exact({kPacked, bits, quantum_ps, kInside, masks[bits % 5], 15, 80'000'000, phase});
    expect_exact({kPacked, bits, quanta[bits % 3], kOutside, 0, 0, 80'000'000, fast});
  }
  // 31 MHz: syncs are due on the tick of the event before.
  expect_exact({kPacked, 16, 32768, kInside, 0, 1, 80'000'000, "sync_interval=4"});
  constexpr std::uint64_t kMinutePs = 60 * kSecondPs;  // the clock wraps four times
  for (const unsigned quantum_ps : {1U, 8U, 24U, 4096U}) {
    for (const unsigned bits : {4U, 9U, 16U, 31U}) {
      const std::string start = bits == 9 ? "clock_ps=14315125997000" : "clock_ps=14315125900000";
      expect_exact({kPacked, bits, quantum_ps, kInside, 0, 15, 200'000'000, start});
      const std::string syncs = "clock_ps=14315108000000;sync_interval=25";
      expect_exact({kPacked, bits, quantum_ps, kInside, 0, 15, 200'000'000, syncs});
    }
    if (quantum_ps == 1) continue;  // after a wrap, a sync about 10 ms after an event is ambiguous
    expect_exact({kPacked, 24, quantum_ps, kInside, 0, 3097800, kMinutePs});
  }
  expect_exact({kPacked, 16, 8, kOutside, 0, 0, kMinutePs, "external_hz=90,20,10,3"});
  for (const Format format : {Format::raw64, Format::delta32}) {
    for (const Mode mode : {kInside, kOutside}) {
      for (const char* const start : {"clock_ps=6000000000000", "clock_ps=14315124000000"}) {
        expect_exact({format, 16, 8, mode, 0, 310, 5'000'000'000, start});
      }
      const std::string slow = "external_hz=200,200,200,200";
      expect_exact({format, 16, 8, mode, 0, 30978, kMinutePs / 2, slow});
    }
  }
}

// Four events take 5 KiB, and 256 of each channel would take more than a search looks through.
TEST(SimulatedStream, SyncsComeAgainInTimeForASearch) {
  const Instrument slow = {.bits = 8,
                           .divider = 15'489,  // 2 kHz
                           .duration_ps = kSecondPs / 80,
                           .sim = "damage=flip@0,flip@1,flip@2,flip@3,flip@4,flip@5,flip@6,flip@7"};
  std::size_t tags = 0;
  slow.for_each_batch(1 << 16, [&](auto batch) { tags += batch.size(); });
  EXPECT_GT(tags, 40U);
}

long max_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// Two hours wrap the instrument's clock 503 times.
TEST(SimulatedStream, DecodesExactlyForDaysInTheSameMemory) {
  const char* const text = std::getenv("ORVO_LONG_STREAMS");
  const std::uint64_t factor = text != nullptr ? std::strtoull(text, nullptr, 10) : 1;
  expect_exact({.duration_ps = kSecondPs / 10});  // all buffers have their size then
  const long before_kib = max_rss_kib();
  std::uint64_t events = expect_exact({.duration_ps = factor * kSecondPs * 5 / 2});
  const std::uint64_t hours_ps = factor * 7200 * kSecondPs;
  for (const unsigned bits : {8U, 16U, 24U, 31U}) {
    events += expect_exact({.bits = bits, .divider = 30'978'261, .duration_ps = hours_ps});
    events += expect_exact({.bits = bits,
                            .mode = Mode::external,
                            .duration_ps = hours_ps,
                            .sim = "external_hz=30,10,5,2"});
  }
  std::cout << events << " events, eight streams of " << 2 * factor << " hours with "
            << hours_ps / kWrapPs << " turns of the clock each, +" << max_rss_kib() - before_kib
            << " KiB\n";
  EXPECT_LT(max_rss_kib() - before_kib, 4096);  // room for a sanitizer
}

std::string ppm_text(std::int64_t per_1e12) {
  return std::to_string(1e-6 * static_cast<double>(per_1e12));
}

// With a tick q, a jitter of up to j and S from the first to the last timestamp, a computed ppm is
// off by less than L = 10^6 (q + 2j) / S. Channels 0 and 1 have the largest error of rate that
// passes for certain, L below the tolerance, and the smallest one that fails; no rate shows the
// event that each loses before its first timestamp. Of n events a lost one weighs 10^6 / (n - 1)
// ppm: 2 and 3 lose as many as pass, and one more.
TEST(Verdict, IsTrueUpToTheLimits) {
  std::uint64_t seed = 0;
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
        const Instrument instrument = {
            .quantum_ps = quantum_ps,
            .divider = divider,
            .duration_ps = end_ps,
            .sim = "seed=" + std::to_string(seed) + ";jitter_ps=" + std::to_string(jitter_ps) +
                   ";clock_ps=" + std::to_string(kWrapPs - 1 - to_wrap_ps) +
                   ";rate_error_ppm=0:" + ppm_text(sign * (tolerance - limit)) +
                   ",1:" + ppm_text(-sign * (tolerance + limit)) + ";lose=0:1@0,1:1@0,2:" +
                   std::to_string(allowed) + "@40,3:" + std::to_string(allowed + 1) + "@40"};
        verification::TagStatistics statistics;
        instrument.for_each_batch(1 << 16, [&](auto tags) { statistics.add(tags); });
        const verification::EvaluationSettings settings;  // with a tolerance of 25 ppm
        const auto result = judge(statistics, derive_rates(divider, settings), settings);
        EXPECT_EQ(result.channels[2].count, result.channels[3].count + 1);
        for (std::size_t c = 0; c < simulator::kChannels; ++c) {
          EXPECT_EQ(result.channels[c].pass, c % 2 == 0)
              << c << ": " << result.channels[c].ppm_error;
        }
      }
    }
  }
  std::cout << simulator::kChannels * seed << " verdicts\n";
}

constexpr std::size_t kChunkBytes = 256;  // of the packed recordings below each has all syncs

std::vector<Instrument> recordings(std::uint64_t clock_ps) {
  std::vector<Instrument> recordings = {
      {Format::raw64, 16, 8, Mode::external},
      {Format::raw64, 16, 8, Mode::internal, 0, 15},
      {Format::delta32, 16, 8, Mode::internal, 0, 15},
      {Format::packed_delta, 16, 8, Mode::internal, 0, 15},
      {Format::packed_delta, 16, 8, Mode::internal, 0, 310},  // with overflows
      {Format::packed_delta, 9, 1, Mode::internal, 0, 15},
      {Format::packed_delta, 16, 8, Mode::external},
  };
  for (Instrument& recording : recordings) {
    recording.sim =
        "pace=bytes:1792;sync_interval=4;external_hz=2000000,1800000,1500000,1200000;clock_ps=" +
        std::to_string(clock_ps);
  }
  return recordings;
}

/// The tags of each chunk, of which the first one has `first_bytes`.
std::vector<Tags> decode(const timing::StreamFileHeader& header, std::span<const std::uint8_t> rest,
                         std::size_t first_bytes, std::size_t bytes) {
  const auto decoder = timing::StreamDecoder::make(header);
  std::vector<Tags> chunks;
  for (std::size_t count = first_bytes; !rest.empty(); count = std::min(bytes, rest.size())) {
    chunks.push_back(feed(*decoder, rest.first(count)));
    rest = rest.subspan(count);
  }
  return chunks;
}

// What comes before a cut is a prefix, and the rest follows without a gap.
TEST(DamagedRecording, CutAnywhereAndInAnyChunksGivesTheSameTags) {
  std::size_t ways = 0;
  for (const Instrument& recording : recordings(kWrapPs - 5'000'000)) {  // the clock wraps early
    const Bytes payload = recording.bytes();
    const std::size_t size = payload.size();
    const Tags whole = decode(recording.header(), payload, size, size)[0];
    ASSERT_GT(whole.size(), size / 20);
    EXPECT_GT(decode(recording.header(), payload, size / 2, size)[0].size(), 5U);
    for (std::size_t cut = 0; cut < size; ++cut) {
      for (const std::size_t bytes : {size, 1 + cut % 300}) {
        Tags tags;
        for (const Tags& some : decode(recording.header(), payload, cut, bytes)) {
          tags.insert(tags.end(), some.begin(), some.end());
        }
        ASSERT_EQ(tags, whole) << cut << " bytes, then " << bytes << " a chunk";
        ++ways;
      }
    }
  }
  std::cout << ways << " ways of cutting into chunks\n";
}

// The fault shows with the next syncs, one chunk later at the latest; the chunk after that brings
// the lock; from then on all tags come.
TEST(DamagedRecording, AFlippedBitCostsAPackedRecordingThreeChunks) {
  const auto same_but_for_turns = [](const timing::TimeTag& a, const timing::TimeTag& b) {
    return a.channel == b.channel &&
           (a.time_ps - b.time_ps) % static_cast<std::int64_t>(kWrapPs) == 0;
  };
  std::size_t flips = 0;
  for (const Instrument& recording : recordings(1'000'000'000'000)) {
    if (recording.format != Format::packed_delta) continue;
    Bytes payload = recording.bytes();
    const auto decoded = [&] {
      return decode(recording.header(), payload, kChunkBytes, kChunkBytes);
    };
    const std::vector<Tags> undamaged = decoded();
    for (std::size_t bit = 0; bit < 8 * payload.size(); bit += 3) {
      const auto flipped = static_cast<std::uint8_t>(1U << bit % 8);
      payload[bit / 8] ^= flipped;
      const std::vector<Tags> tags = decoded();
      for (std::size_t k = bit / 8 / kChunkBytes + 3; k < tags.size(); ++k) {
        ASSERT_TRUE(std::equal(tags[k].begin(), tags[k].end(), undamaged[k].begin(),
                               undamaged[k].end(), same_but_for_turns))
            << recording.bits << " bits, bit " << bit;
      }
      payload[bit / 8] ^= flipped;
      ++flips;
    }
  }
  std::cout << flips << " flips\n";
}

}  // namespace
}  // namespace orvo::tests
