// The simulated instrument: what its streams decode to, what it does on command, its ledger.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "orvo/simulator/payload.h"
#include "orvo/simulator/settings.h"
#include "orvo/simulator/statuses.h"
#include "orvo/simulator/stream.h"
#include "orvo/timing/ot_api.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::simulator {
namespace {

using timing::Format;
using timing::Mode;

constexpr std::uint64_t kDivider1kHz = 30978;
constexpr std::uint64_t kDivider100kHz = 310;
constexpr std::uint64_t kDivider2MHz = 15;

struct StreamCase {
  Format format = Format::packed_delta;
  unsigned bits = 16;
  unsigned quantum_ps = 8;
  Mode mode = Mode::internal;
  unsigned mask = 0;
  std::uint64_t divider = kDivider100kHz;
  std::uint64_t duration_ps = 80'000'000;
  const char* settings = "";
};

StreamConfig config_of(const StreamCase& c, const Settings& settings) {
  StreamConfig config;
  config.format = c.format;
  config.delta_bits = static_cast<std::uint8_t>(c.bits);
  config.quantum_ps = static_cast<std::uint16_t>(c.quantum_ps);
  config.source = {c.mode, static_cast<std::uint8_t>(c.mask), static_cast<std::uint32_t>(c.divider),
                   settings.clock_ps};
  return config;
}

timing::StreamFileHeader header_of(const StreamConfig& config) {
  timing::StreamFileHeader header;
  header.stream_format = config.format;
  header.mode = config.source.mode;
  header.channel_mask = config.source.channel_mask;
  header.delta_bits = config.delta_bits;
  header.quantum_ps = config.quantum_ps;
  if (config.source.mode == Mode::internal) header.raw64_tag_format = "raw_cf";
  return header;
}

std::vector<std::uint8_t> bytes_of(const Settings& settings, const StreamConfig& config) {
  Stream stream(settings, generate_payload(settings, config));
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint8_t> part(100'003);
  while (const std::size_t got = stream.read(part, kNever - 1)) {
    bytes.insert(bytes.end(), part.begin(), part.begin() + static_cast<std::ptrdiff_t>(got));
  }
  return bytes;
}

std::vector<timing::TimeTag> tags_of(const std::vector<std::uint8_t>& bytes,
                                     const StreamConfig& config, std::size_t chunk = 4000) {
  timing::StreamDecoder decoder(header_of(config));
  std::vector<timing::TimeTag> tags;
  for (std::size_t at = 0; at < bytes.size(); at += chunk) {
    decoder.input_buffer.append(std::span(bytes).subspan(at, std::min(chunk, bytes.size() - at)));
    const auto fed = decoder.feed();
    tags.insert(tags.end(), fed.begin(), fed.end());
  }
  return tags;
}

/// Every event decodes in its order, with its time cut to whole ticks, on a time line that each
/// channel begins with the clock's reading at its first event.
void expect_exact(const StreamCase& c) {
  SCOPED_TRACE("bits " + std::to_string(c.bits) + " quantum " + std::to_string(c.quantum_ps) +
               " mask " + std::to_string(c.mask) + " divider " + std::to_string(c.divider) + " " +
               c.settings);
  const std::string pace = "pace=ps:" + std::to_string(c.duration_ps) + ";";
  const Settings settings = parse_settings(pace + c.settings);
  const StreamConfig config = config_of(c, settings);
  const auto tags = tags_of(bytes_of(settings, config), config);
  const bool packed = c.format == Format::packed_delta;
  const auto shift = static_cast<unsigned>(packed ? std::countr_zero(c.quantum_ps) : 0);
  const std::uint64_t tolerance = c.format == Format::raw64 && c.mode == Mode::internal ? 18 : 0;
  std::uint64_t line_ps = c.format == Format::raw64 ? kWrapPs : kTickMask + 1;
  if (packed) line_ps = std::min(kWrapPs, line_ps << shift);
  std::array<std::uint64_t, kChannels> base{kNever, kNever, kNever, kNever};
  EventSource events(settings, config.source);
  for (const timing::TimeTag& tag : tags) {
    const Event event = events.front();
    events.pop();
    if (base[event.channel] == kNever) {
      base[event.channel] = event.time_ps - event.time_ps % kWrapPs % line_ps;
    }
    const std::uint64_t expected = (event.time_ps >> shift << shift) - base[event.channel];
    ASSERT_EQ(tag.channel, event.channel);
    ASSERT_LE(static_cast<std::uint64_t>(tag.time_ps) - expected, tolerance);
  }
  EXPECT_GT(tags.size(), 100U);
  EXPECT_GE(events.front().time_ps, settings.clock_ps + settings.end) << "events are missing";
}

TEST(SimulatedStream, EveryWidthDecodesExactly) {
  const unsigned quanta[] = {8, 16, 1000, 32768, 1, 12, 7};
  const unsigned masks[] = {0x0, 0xF, 0x5, 0x1, 0xE};
  for (unsigned bits = 1; bits <= 31; ++bits) {
    const std::string settings = "sync_interval=25;bit_phase=" + std::to_string(bits * 5 % 34);
    expect_exact({.bits = bits,
                  .quantum_ps = quanta[bits % 7],
                  .mask = masks[bits % 5],
                  .divider = kDivider2MHz,
                  .settings = settings.c_str()});
    expect_exact({.bits = bits,
                  .quantum_ps = quanta[bits % 3],
                  .mode = Mode::external,
                  .settings = "external_hz=3000000,1000000,2000000,800000"});
  }
}

TEST(SimulatedStream, DecodesAcrossTheClocksWrap) {
  // 14315125997568 ps is the wrap; 60 s reach it four times.
  constexpr std::uint64_t kMinutePs = 60'000'000'000'000;
  for (const unsigned quantum_ps : {8U, 24U, 4096U}) {
    for (const unsigned bits : {4U, 9U, 16U, 31U}) {
      for (const char* const start : {"clock_ps=14315125900000", "clock_ps=14315125997000"}) {
        expect_exact({.bits = bits,
                      .quantum_ps = quantum_ps,
                      .divider = kDivider2MHz,
                      .duration_ps = 200'000'000,
                      .settings = start});
      }
    }
    expect_exact({.bits = 24,
                  .quantum_ps = quantum_ps,
                  .divider = 100 * kDivider1kHz,
                  .duration_ps = kMinutePs});
  }
  expect_exact({.divider = 10 * kDivider1kHz, .duration_ps = kMinutePs});
  expect_exact(
      {.mode = Mode::external, .duration_ps = kMinutePs, .settings = "external_hz=90,20,10,3"});
}

TEST(SimulatedStream, OtherFormatsDecodeExactly) {
  for (const Format format : {Format::raw64, Format::delta32}) {
    for (const Mode mode : {Mode::internal, Mode::external}) {
      for (const char* const settings :
           {"clock_ps=0", "clock_ps=6000000000000", "clock_ps=14315124000000", "noise_bytes=0"}) {
        expect_exact(
            {.format = format, .mode = mode, .duration_ps = 5'000'000'000, .settings = settings});
      }
      expect_exact({.format = format,
                    .mode = mode,
                    .divider = kDivider1kHz,
                    .duration_ps = 31'000'000'000'000,
                    .settings = "external_hz=200,200,200,200"});
    }
  }
}

TEST(SimulatedStream, PeriodsNeverDrift) {
  // 19 periods are a whole number of picoseconds; at 100 ppm, 10001 come in the time of 10000.
  const Settings settings = parse_settings("jitter_ps=0;rate_error_ppm=1:100,3:-5.0;silent=2");
  EventSource events(settings, {Mode::internal, 0, 310, 0});
  constexpr std::uint64_t kPeriods19Ps = 310 * 613272;
  struct {
    std::uint64_t events, elapsed_ps;
  } const at[] = {{190000, 10000 * kPeriods19Ps},
                  {190019, 10000 * kPeriods19Ps},
                  {0, 0},
                  {19 * 199999, 200000 * kPeriods19Ps}};
  std::array<std::uint64_t, kChannels> count{};
  std::array<std::uint64_t, kChannels> first{};
  for (; count[3] <= at[3].events; events.pop()) {
    const Event& event = events.front();
    if (count[event.channel] == 0) first[event.channel] = event.time_ps;
    if (count[event.channel] == at[event.channel].events) {
      EXPECT_EQ(event.time_ps - first[event.channel], at[event.channel].elapsed_ps);
    }
    ++count[event.channel];
  }
  EXPECT_EQ(count[2], 0U);
}

TEST(SimulatedStream, LosesExactlyTheEventsNamed) {
  const StreamCase c{};
  const auto count = [&c](const char* text, unsigned channel) {
    const Settings settings = parse_settings(std::string("pace=ps:5000000000;") + text);
    const StreamConfig config = config_of(c, settings);
    std::uint64_t tags = 0;
    for (const auto& tag : tags_of(bytes_of(settings, config), config)) {
      tags += tag.channel == channel ? 1 : 0;
    }
    return tags;
  };
  const std::uint64_t all = count("", 2);
  EXPECT_EQ(all, 500U);
  EXPECT_EQ(count("lose=2:1@100", 2), all - 1);
  EXPECT_EQ(count("lose=2:1@0,2:30@255,2:3@260", 2), all - 34);
  EXPECT_EQ(count("lose=2:17@100", 1), all);
}

TEST(SimulatedStream, DamageAndNoiseAreExact) {
  const Settings clean = parse_settings("pace=bytes:5000");
  const StreamConfig config = config_of({}, clean);
  auto expected = bytes_of(clean, config);
  ASSERT_EQ(expected.size(), 5000U);
  const Settings damaged = parse_settings("pace=bytes:5000;damage=repeat@9,flip@0,drop@70");
  expected[0] = static_cast<std::uint8_t>(~expected[0]);
  expected.erase(expected.begin() + 70);
  expected.insert(expected.begin() + 9, expected[9]);
  EXPECT_EQ(bytes_of(damaged, config), expected);

  const Settings noisy = parse_settings("pace=bytes:5009;noise_bytes=9");
  const auto with_noise = bytes_of(noisy, config);
  EXPECT_TRUE(
      std::equal(with_noise.begin() + 9, with_noise.end(), bytes_of(clean, config).begin()));
}

/// The first byte at or behind `from` that lies in a sync's value.
std::size_t find_sync(const std::vector<std::uint8_t>& bytes, std::size_t from, unsigned bits) {
  const auto bit = [&bytes](std::size_t at) { return (bytes[at / 8] >> (7 - at % 8) & 1) != 0; };
  for (std::size_t record = (from * 8) / (bits + 3) * (bits + 3);; record += bits + 3) {
    unsigned ones = 0;
    while (ones <= bits && bit(record + 2 + ones)) ++ones;
    if (ones > bits) return (record + bits + 3) / 8 + 1;
  }
}

TEST(SimulatedStream, ALostLockIsFoundAgain) {
  // At 8 bits, 256 events take more than a reader searches.
  for (const unsigned bits : {8U, 16U}) {
    const std::string text = "pace=bytes:60000;bit_phase=0;";
    const Settings clean = parse_settings(text);
    const StreamConfig config = config_of({.bits = bits, .divider = 3098}, clean);
    const auto bytes = bytes_of(clean, config);
    const std::string place = std::to_string(find_sync(bytes, 20000, bits));
    const std::string next = std::to_string(find_sync(bytes, 20000, bits) + 1);
    const Settings damaged = parse_settings(text + "damage=flip@" + place + ",flip@" + next);
    const auto sent = tags_of(bytes, config, 8192);
    const auto seen = tags_of(bytes_of(damaged, config), config, 8192);
    EXPECT_LT(seen.size(), sent.size());
    EXPECT_GT(seen.size(), sent.size() / 2);
    EXPECT_EQ(seen.back().time_ps, sent.back().time_ps);
  }
}

TEST(SimulatorSettings, BadOnesAreNamed) {
  for (const char* const text :
       {"speed=1", "seed=", "seed=1x", "rate_error_ppm=4:1", "rate_error_ppm=1:0.1234567",
        "silent=", "silent=7", "lose=1:2", "bit_phase=34", "clock_ps=14315125997568",
        "damage=bend@3", "pace=fast", "pace=bytes:", "external_hz=1,2,3",
        "replay=", "fail=ot_last_error:1:-1", "fail=ot_open:0:-1", "fail=ot_open:1:0",
        "fail=ot_open:1:-2:sometimes"}) {
    const std::string key = std::string(text).substr(0, std::string(text).find('='));
    try {
      static_cast<void>(parse_settings(std::string("seed=5;") + text));
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& error) {
      EXPECT_NE(std::string(error.what()).find("'" + key + "'"), std::string::npos) << text;
    }
  }
}

class DriverLibrary : public testing::Test {
 protected:
  static void set_up(const std::string& settings) {
    ::setenv("ORVO_SIM", (settings + ";ledger=" + ledger_path()).c_str(), 1);
  }

  static std::string ledger_path() { return testing::TempDir() + "simulator_test.ledger"; }

  /// The lines of the ledger that contain `text`.
  static std::string ledger(const std::string& text) {
    std::ifstream file(ledger_path());
    std::string found;
    for (std::string line; std::getline(file, line);) {
      if (line.find(text) != std::string::npos) found += line + "\n";
    }
    return found;
  }
};

TEST_F(DriverLibrary, ServesAnInstrument) {
  set_up("pace=bytes:1000;instruments=2");
  ot_discovery_list* list = nullptr;
  ASSERT_EQ(ot_discover(&list), OT_OK);
  EXPECT_EQ(ot_discover_count(list), 2U);
  ot_device* dev = nullptr;
  ot_device* second = nullptr;
  EXPECT_EQ(ot_open_serial(&dev, "sim:2"), OT_ERR_NOT_FOUND);
  ASSERT_EQ(ot_open_serial(&dev, ot_discover_port(list, 1)), OT_OK);
  EXPECT_EQ(ot_open_serial(&second, "sim:0"), kBusy);
  ot_discover_free(list);
  std::uint32_t divider = 0;
  EXPECT_EQ(ot_set_calibration_freq(dev, 1e-3, &divider), OT_ERR_ARGUMENT);
  EXPECT_EQ(ot_set_calibration_freq(dev, 2e6, &divider), OT_OK);
  EXPECT_EQ(divider, 15U);
  std::uint8_t bits = 16;
  std::uint16_t quantum_ps = 8;
  EXPECT_EQ(ot_set_packed_delta_config(dev, 200, 0, &bits, &quantum_ps), OT_OK);
  EXPECT_EQ(bits, 31);
  EXPECT_EQ(quantum_ps, 8);
  ASSERT_EQ(ot_start_stream_mode(dev, 0, 0), OT_OK);
  std::uint8_t buffer[600];
  for (const std::uint64_t expected : {600U, 400U, 0U}) {
    std::uint64_t got = 0;
    EXPECT_EQ(ot_read_stream_bytes(dev, buffer, sizeof buffer, &got, 1),
              expected == 0 ? OT_ERR_TIMEOUT : OT_OK);
    EXPECT_EQ(got, expected);
  }
  EXPECT_EQ(ot_stop_stream_mode(dev, 1), OT_OK);
  EXPECT_EQ(ot_close(dev), OT_OK);
  EXPECT_EQ(ledger("misuse"), "");
}

TEST_F(DriverLibrary, FailsOnCommandAndCleansUp) {
  set_up("fail=ot_open:1:-4:effect;fail=ot_start_stream_mode:1:7:effect:always:detail=too: hot");
  ot_device* dev = nullptr;
  EXPECT_EQ(ot_open(&dev, "sim:0", 9600), OT_ERR_FORMAT);
  EXPECT_EQ(dev, nullptr);
  ASSERT_EQ(ot_open(&dev, "sim:0", 9600), OT_OK);
  EXPECT_EQ(ot_start_stream_mode(dev, 0, 0), 7);
  EXPECT_STREQ(ot_last_error(dev), "too: hot");
  EXPECT_EQ(ot_set_stream_channel_mask(dev, 1), OT_OK) << "the stream still runs";
  EXPECT_EQ(ledger("misuse"), "");
  EXPECT_EQ(ot_stop_stream_mode(dev, 2), OT_ERR_NOT_OPEN);
  EXPECT_EQ(ot_close(dev), OT_OK);
  EXPECT_EQ(ot_close(dev), OT_ERR_NOT_OPEN);
  EXPECT_NE(ledger("misuse ot_stop_stream_mode"), "");
  EXPECT_NE(ledger("misuse ot_close"), "");
}

}  // namespace
}  // namespace orvo::simulator
