// The simulated instrument: what its streams decode to, what it does on command, its ledger.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "orvo/simulator/device.h"
#include "orvo/simulator/settings.h"
#include "orvo/simulator/stream.h"
#include "orvo/timing/device/ot_api.h"
#include "orvo/timing/stream_decoder.h"
#include "support/instrument.h"
#include "support/scratch.h"

namespace orvo::simulator {
namespace {

using timing::Format;
using timing::Mode;
using Bytes = std::vector<std::uint8_t>;

struct StreamCase {
  Format format = Format::packed_delta;
  unsigned bits = 16, quantum_ps = 8;
  Mode mode = Mode::internal;
  unsigned mask = 0;
  unsigned divider = 310;  // 100 kHz
  std::uint64_t duration_ps = 80'000'000;
  std::string settings;
};

tests::Instrument instrument_of(const std::string& text, const StreamCase& c) {
  tests::Instrument instrument;
  instrument.settings = parse_settings(text);
  instrument.divider = c.divider;
  timing::StreamFileHeader& header = instrument.header;
  header.stream_format = c.format;
  header.mode = c.mode;
  header.channel_mask = static_cast<std::uint8_t>(c.mask);
  header.delta_bits = static_cast<std::uint8_t>(c.bits);
  header.quantum_ps = static_cast<std::uint16_t>(c.quantum_ps);
  if (c.mode == Mode::internal) header.raw64_tag_format = "raw_cf";
  return instrument;
}

Bytes bytes_of(const std::string& text, const StreamCase& c = {}) {
  const tests::Instrument instrument = instrument_of(text, c);
  Stream stream(instrument.settings, instrument.payload());
  Bytes bytes, part(100'003);
  while (const std::size_t got = stream.read(part, kNever - 1)) {
    bytes.insert(bytes.end(), part.begin(), part.begin() + static_cast<std::ptrdiff_t>(got));
  }
  return bytes;
}

void expect_exact(const StreamCase& c) {
  SCOPED_TRACE("bits " + std::to_string(c.bits) + " quantum " + std::to_string(c.quantum_ps) +
               " mask " + std::to_string(c.mask) + " divider " + std::to_string(c.divider) + " " +
               c.settings);
  const std::string text = "pace=ps:" + std::to_string(c.duration_ps) + ";" + c.settings;
  const tests::Instrument instrument = instrument_of(text, c);
  const Bytes bytes = bytes_of(text, c);
  timing::StreamDecoder decoder(instrument.header);
  tests::Witness witness(instrument);
  constexpr std::size_t kChunk = 8192;
  for (std::size_t at = 0; at < bytes.size(); at += kChunk) {
    decoder.append({bytes.data() + at, std::min(kChunk, bytes.size() - at)});
    ASSERT_TRUE(witness.take(decoder.feed()));
  }
  EXPECT_GT(witness.count(), 100U);
  EXPECT_TRUE(witness.has_all_before(instrument.settings.clock_ps + instrument.settings.end));
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
  // 14315125997568 ps is the clock's wrap; 60 s reach it four times.
  constexpr std::uint64_t kMinutePs = 60'000'000'000'000;
  for (const unsigned quantum_ps : {1U, 8U, 24U, 4096U}) {
    for (const unsigned bits : {4U, 9U, 16U, 31U}) {
      const std::string start = bits == 9 ? "clock_ps=14315125997000" : "clock_ps=14315125900000";
      expect_exact({kPacked, bits, quantum_ps, kInside, 0, 15, 200'000'000, start});
      const std::string syncs = "clock_ps=14315108000000;sync_interval=25";
      expect_exact({kPacked, bits, quantum_ps, kInside, 0, 15, 200'000'000, syncs});
    }
    if (quantum_ps == 1) continue;  // after a wrap, a sync about 10 ms after an event is ambiguous
    expect_exact({kPacked, 24, quantum_ps, kInside, 0, 3097800, kMinutePs, ""});
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

/// The channel's next `count` event times.
std::vector<std::uint64_t> times_of(EventSource source, std::size_t count) {
  std::vector<std::uint64_t> times;
  for (; times.size() < count; source.pop()) times.push_back(source.front().time_ps);
  return times;
}

TEST(SimulatedStream, LosesEventsExactlyAtAnyDistance) {
  constexpr unsigned kDivider = 30978261;  // 1 Hz
  const SourceConfig config = {Mode::internal, 1, kDivider, 0};
  const std::vector<std::uint64_t> early =
      times_of(EventSource(parse_settings("jitter_ps=0"), config), 3);
  const struct {
    const char* losses;
    std::uint64_t count;
  } cases[] = {
      {"0:9000000@3", 9'000'000},
      {"0:18500000@3", 18'500'000},  // 2^64 ps and half a day: never
      {"0:9000000@3,0:300000@3", 9'300'000},
      {"0:1000000000@3,0:1000000000@3,0:1000000000@3", 3'000'000'000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.losses);
    const std::string text = std::string("jitter_ps=0;lose=") + c.losses;
    const std::vector<std::uint64_t> times = times_of(EventSource(parse_settings(text), config), 4);
    EXPECT_TRUE(std::equal(early.begin(), early.end(), times.begin()));
    __extension__ using Wide = unsigned __int128;
    const Wide next = early[0] + Wide{c.count + 3} * kDivider * 613272 / 19;
    EXPECT_EQ(std::min(times[3], kTimeLineEndPs),
              static_cast<std::uint64_t>(std::min(next, Wide{kTimeLineEndPs})));
  }
  StreamCase stream;
  stream.mask = 1;
  stream.divider = kDivider;
  EXPECT_EQ(bytes_of("pace=bytes:1000;lose=0:18500000@3", stream),
            bytes_of("pace=ps:2500000000000", stream));
}

TEST(SimulatedStream, JitterMakesEventsLate) {
  const auto lateness = [](const std::string& settings, Mode mode, std::uint64_t period_ps) {
    const SourceConfig config = {mode, 1, 31350, 0};  // 31350 * 613272 / 19 ps
    std::vector<std::uint64_t> times =
        times_of(EventSource(parse_settings(settings), config), 2000);
    const std::uint64_t first_ps =
        times_of(EventSource(parse_settings("jitter_ps=0"), {Mode::internal, 1, 1, 0}), 1)[0];
    for (std::size_t i = 0; i < times.size(); ++i) times[i] -= first_ps + i * period_ps;
    const auto [least, most] = std::minmax_element(times.begin(), times.end());
    return std::pair(*least, *most);
  };
  constexpr std::uint64_t kPeriodPs = 1'011'898'800;
  using Range = std::pair<std::uint64_t, std::uint64_t>;
  EXPECT_EQ(lateness("", Mode::internal, kPeriodPs), Range(0, 6));
  EXPECT_EQ(lateness("jitter_ps=0", Mode::internal, kPeriodPs), Range(0, 0));
  const struct {
    const char* settings;
    Mode mode;
    std::uint64_t period_ps, most_ps;
  } wide[] = {
      {"jitter_ps=1000000000", Mode::internal, kPeriodPs, kPeriodPs / 2},
      {"external_hz=1000,1,1,1", Mode::external, 999'900'000, 499'950'000},
      {"external_hz=10,1,1,1", Mode::external, 99'990'000'000, 4'000'000'000},
  };
  for (const auto& c : wide) {
    const auto [least, most] = lateness(c.settings, c.mode, c.period_ps);
    EXPECT_LT(least, c.most_ps / 100) << c.settings;
    EXPECT_GT(most, c.most_ps / 100 * 99) << c.settings;
    EXPECT_LE(most, c.most_ps) << c.settings;
  }
}

TEST(SimulatedStream, DamageAndNoiseAreExact) {
  const Bytes clean = bytes_of("pace=bytes:5000");
  Bytes expected = clean;
  expected[0] = static_cast<std::uint8_t>(~expected[0]);
  expected.erase(expected.begin() + 70);
  EXPECT_EQ(bytes_of("pace=bytes:4999;damage=drop@70,flip@0,flip@70"), expected);
  const Bytes noisy = bytes_of("pace=bytes:5009;noise_bytes=9");
  EXPECT_EQ(Bytes(noisy.begin() + 9, noisy.end()), clean);
}

TEST(SimulatorSettings, BadOnesAreNamed) {
  std::istringstream texts(
      "speed=1 seed= seed=1x rate_error_ppm=4:1 rate_error_ppm=1:0.1234567 jitter_ps=1000000001 "
      "silent= silent=7 lose=1:2 lose=1:1000000001@0 bit_phase=34 clock_ps=14315125997568 "
      "damage=bend@3 pace=fast pace=bytes: pace=bytes:0 pace=ps:9223372036854775808 "
      "external_hz=1,2,3 external_hz=5000001,1,1,1 noise_bytes=16777217 ledger= "
      "fail=ot_last_error:1:-1 fail=ot_open:0:-1 fail=ot_open:1:0 fail=ot_open:1:-2:sometimes");
  for (std::string text; texts >> text;) {
    const std::string key = std::string("'").append(text, 0, text.find('=')).append("'");
    try {
      static_cast<void>(parse_settings("seed=5;" + text));
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& error) {
      EXPECT_NE(std::string(error.what()).find(key), std::string::npos) << text;
    }
  }
}

class DriverLibrary : public testing::Test {
 protected:
  void set_up(const std::string& settings) {
    ::setenv("ORVO_SIM", (settings + ";ledger=" + scratch_.file("ledger")).c_str(), 1);
  }

  /// Names of the calls that the ledger marks as misuse.
  [[nodiscard]] std::string misuses() const {
    std::ifstream file(scratch_.file("ledger"));
    std::string found;
    for (std::string word; file >> word;) {
      if (word == "misuse" && file >> word) found += word + ' ';
    }
    return found;
  }

  tests::ScratchDirectory scratch_;
  ot_device* dev_ = nullptr;
};

// The first of these tests, so that it is so also where all of them run in one process.
TEST_F(DriverLibrary, SaysAtTheFirstOpeningThatItIsSimulated) {
  set_up("fail=ot_open:1:-2:effect");
  std::string said;
  for (const ot_status expected : {OT_ERR_IO, OT_OK, OT_OK}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ot_open(&dev_, "sim:0", 9600), expected);
    said += std::to_string(expected) + ": " + testing::internal::GetCapturedStderr();
    if (dev_ != nullptr) ot_close(std::exchange(dev_, nullptr));
  }
  EXPECT_EQ(said,
            "-2: 0: liborvo_timing.so.0: simulated instrument; results say nothing about a real "
            "one\n0: ");
}

TEST_F(DriverLibrary, ServesAnInstrument) {
  set_up("pace=bytes:1000;instruments=2");
  ot_discovery_list* list = nullptr;
  ASSERT_EQ(ot_discover(&list), OT_OK);
  EXPECT_EQ(ot_discover_count(list), 2U);
  ot_device* second = nullptr;
  EXPECT_EQ(ot_open_serial(&dev_, "sim:2"), OT_ERR_NOT_FOUND);
  ASSERT_EQ(ot_open_serial(&dev_, ot_discover_port(list, 1)), OT_OK);
  EXPECT_EQ(ot_open_serial(&second, "sim:0"), kBusy);
  ot_discover_free(list);
  std::uint32_t divider = 0;
  EXPECT_EQ(ot_set_calibration_freq(dev_, 1e-3, &divider), OT_ERR_ARGUMENT);
  EXPECT_EQ(ot_set_calibration_freq(dev_, 2e6, &divider), OT_OK);
  EXPECT_EQ(divider, 16U);  // 15 is nearer as a number, but its frequency is not
  std::uint8_t bits = 16;
  std::uint16_t quantum_ps = 8;
  EXPECT_EQ(ot_set_packed_delta_config(dev_, 200, 0, &bits, &quantum_ps), OT_OK);
  EXPECT_EQ(bits, 31);
  EXPECT_EQ(quantum_ps, 8);
  ASSERT_EQ(ot_start_stream_mode(dev_, 0, 0), OT_OK);
  std::uint8_t buffer[600];
  for (const std::uint64_t expected : {600U, 400U, 0U}) {
    std::uint64_t got = 0;
    EXPECT_EQ(ot_read_stream_bytes(dev_, buffer, sizeof buffer, &got, 1),
              expected == 0 ? OT_ERR_TIMEOUT : OT_OK);
    EXPECT_EQ(got, expected);
  }
  EXPECT_EQ(ot_stop_stream_mode(dev_, 1), OT_OK);
  EXPECT_EQ(ot_close(dev_), OT_OK);
  EXPECT_EQ(misuses(), "");
}

TEST_F(DriverLibrary, FailsOnCommandAndCleansUp) {
  set_up("fail=ot_open:1:-4:effect;fail=ot_start_stream_mode:1:7:effect:always:detail=too: hot");
  EXPECT_EQ(ot_open(&dev_, "sim:0", 9600), OT_ERR_FORMAT);
  EXPECT_EQ(dev_, nullptr);
  ASSERT_EQ(ot_open(&dev_, "sim:0", 9600), OT_OK);
  EXPECT_EQ(ot_start_stream_mode(dev_, 0, 0), 7);
  EXPECT_STREQ(ot_last_error(dev_), "too: hot");
  EXPECT_EQ(ot_set_stream_channel_mask(dev_, 1), OT_OK) << "the stream still runs";
  EXPECT_EQ(misuses(), "");
  EXPECT_EQ(ot_stop_stream_mode(dev_, 2), OT_ERR_NOT_OPEN);
  EXPECT_EQ(ot_close(dev_), OT_OK);
  EXPECT_EQ(ot_close(dev_), OT_ERR_NOT_OPEN);
  EXPECT_EQ(misuses(), "ot_stop_stream_mode ot_close ");
}

TEST_F(DriverLibrary, ReportsALedgerThatCannotBeWrittenOnce) {
  ::setenv("ORVO_SIM", "ledger=/dev/full", 1);
  testing::internal::CaptureStderr();
  ASSERT_EQ(ot_open(&dev_, "sim:0", 9600), OT_OK);
  EXPECT_EQ(ot_set_stream_channel_mask(dev_, 1), OT_OK);
  EXPECT_EQ(ot_close(dev_), OT_OK);
  const std::string said = testing::internal::GetCapturedStderr();
  const std::string line = "ORVO_SIM: cannot write the ledger '/dev/full', which ends here\n";
  EXPECT_NE(said.find(line), std::string::npos) << said;
  EXPECT_EQ(said.find("ledger"), said.rfind("ledger")) << said;
}

}  // namespace
}  // namespace orvo::simulator
