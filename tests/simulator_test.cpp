// The simulated instrument: its events, what it does on command, its ledger.
#include <gtest/gtest.h>

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvo/simulator/device.h"
#include "orvo/simulator/driver.h"
#include "orvo/simulator/settings.h"
#include "orvo/timing/device/ot_api.h"
#include "support/instrument.h"
#include "support/scratch.h"

namespace orvo::simulator {
namespace {

using timing::Mode;
using Bytes = std::vector<std::uint8_t>;

Bytes bytes_of(const std::string& sim) { return tests::Instrument{.sim = sim}.bytes(); }

/// The channel's next `count` event times.
std::vector<std::uint64_t> times_of(EventSource source, std::size_t count) {
  std::vector<std::uint64_t> times;
  for (; times.size() < count; source.pop()) times.push_back(source.front().time_ps);
  return times;
}

TEST(SimulatedEvents, AreLostExactlyAtAnyDistance) {
  constexpr std::uint64_t kDivider = 30978261;  // 1 Hz
  const SourceConfig config = {Mode::internal, 1, kDivider, 0};
  const std::uint64_t first_ps = times_of(EventSource(parse_settings("jitter_ps=0"), config), 1)[0];
  const struct {
    const char* losses;
    std::vector<std::uint64_t> numbers;  // of the events that are left
  } cases[] = {
      {"0:2@6,0:2@3", {0, 1, 2, 5, 8}},
      {"0:2@0", {2, 3}},
      {"0:9000000@3,0:300000@3", {0, 1, 2, 9'300'003}},
      {"0:18500000@3", {0, 1, 2, kNever}},  // 2^64 ps and half a day
  };
  for (const auto& [losses, numbers] : cases) {
    const Settings settings = parse_settings(std::string("jitter_ps=0;lose=") + losses);
    const std::vector<std::uint64_t> times =
        times_of(EventSource(settings, config), numbers.size());
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      __extension__ using Wide = unsigned __int128;
      const Wide time_ps = first_ps + Wide{numbers[i]} * kDivider * 613272 / 19;
      EXPECT_TRUE(std::min(times[i], kTimeLineEndPs) == std::min(time_ps, Wide{kTimeLineEndPs}))
          << losses << ": " << times[i];
    }
  }
}

TEST(SimulatedEvents, AreLateByTheirJitter) {
  const struct {
    const char* settings;
    Mode mode;
    std::uint64_t period_ps, most_ps;
  } cases[] = {
      {"", Mode::internal, 1'011'898'800, 6},  // 31350 * 613272 / 19 ps
      {"jitter_ps=1000000000", Mode::internal, 1'011'898'800, 1'011'898'800 / 2},
      {"external_hz=1000,1,1,1", Mode::external, 999'900'000, 499'950'000},
      {"external_hz=10,1,1,1", Mode::external, 99'990'000'000, 4'000'000'000},
  };
  for (const auto& c : cases) {
    std::uint64_t nominal_ps =
        times_of(EventSource(parse_settings("jitter_ps=0"), {Mode::internal, 1, 1, 0}), 1)[0];
    std::vector<std::uint64_t> late =
        times_of(EventSource(parse_settings(c.settings), {c.mode, 1, 31350, 0}), 2000);
    for (std::uint64_t& time_ps : late) {
      time_ps -= nominal_ps;
      nominal_ps += c.period_ps;
    }
    const auto [least, most] = std::minmax_element(late.begin(), late.end());
    EXPECT_LE(*least, c.most_ps / 100) << c.settings;
    EXPECT_GE(*most, c.most_ps / 100 * 99) << c.settings;
    EXPECT_LE(*most, c.most_ps) << c.settings;
  }
}

TEST(SimulatedStream, DamageAndNoiseAreExact) {
  const Bytes clean = bytes_of("pace=bytes:5000");
  Bytes expected = clean;
  for (const std::size_t at : {0U, 90U}) expected[at] = static_cast<std::uint8_t>(~expected[at]);
  expected.erase(expected.begin() + 70);
  EXPECT_EQ(bytes_of("pace=bytes:4999;damage=drop@70,flip@90,flip@0,flip@70"), expected);
  EXPECT_EQ((tests::Instrument{.mask = 0xF0, .sim = "pace=bytes:5000"}.bytes()), clean);
  const Bytes noisy = bytes_of("pace=bytes:5009;noise_bytes=9;damage=flip@9");
  EXPECT_EQ(noisy[9], static_cast<std::uint8_t>(~clean[0]));
  EXPECT_TRUE(std::equal(noisy.begin() + 10, noisy.end(), clean.begin() + 1, clean.end()));
}

TEST(SimulatedStream, BeginsWithTheLastBitsOfARecord) {
  const auto bits = [](const std::string& phase) {
    std::string text;
    for (const std::uint8_t byte : bytes_of("pace=bytes:3;bit_phase=" + phase)) {
      text += std::bitset<8>(byte).to_string();
    }
    return text;
  };
  const std::string most = bits("18").substr(0, 18);  // of 19
  EXPECT_EQ(most[1], '0') << "a sync or an overflow";
  EXPECT_EQ(bits("7").substr(0, 7), most.substr(11));
}

TEST(SimulatorSettings, BadOnesAreNamed) {
  std::istringstream texts(
      "speed=1 seed= seed=1x rate_error_ppm=4:1 rate_error_ppm=1:0.1234567 "
      "rate_error_ppm=1:-100000.000001 jitter_ps=1000000001 silent= silent=1, silent=7 lose=1:2 "
      "lose=1:1000000001@0 bit_phase=34 clock_ps=14315125997568 "
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
  ~DriverLibrary() override { reload(); }

  /// As at the end of the process, and the loading of the library by the next one.
  static void reload() {
    Driver& driver = Driver::instance();
    std::destroy_at(&driver);
    std::construct_at(&driver);
  }
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

TEST_F(DriverLibrary, ServesAnInstrument) {
  set_up("pace=bytes:1000;instruments=2");
  ot_device* second = nullptr;
  EXPECT_EQ(ot_open_serial(&dev_, "sim:2"), OT_ERR_NOT_FOUND);
  ASSERT_EQ(ot_open_serial(&dev_, "sim:1"), OT_OK);
  ::setenv("ORVO_SIM", "seed=2", 1);  // from the next opening on
  EXPECT_EQ(ot_open_serial(&second, "sim:0"), kBusy);
  std::uint32_t divider = 0;
  EXPECT_EQ(ot_set_calibration_freq(dev_, 1e-3, &divider), OT_ERR_ARGUMENT);
  EXPECT_EQ(ot_set_calibration_freq(dev_, 2e6, &divider), OT_OK);
  EXPECT_EQ(divider, 16U);  // 15 is nearer as a number, but its frequency is not
  std::uint8_t bits = 16;
  std::uint16_t quantum_ps = 8;
  EXPECT_EQ(ot_set_packed_delta_config(dev_, 0, 0, &bits, &quantum_ps), OT_OK);
  EXPECT_EQ(bits, 16);
  EXPECT_EQ(quantum_ps, 8);
  EXPECT_EQ(ot_set_stream_channel_mask(dev_, 1), OT_OK);
  ASSERT_EQ(ot_start_stream_mode(dev_, 0, 0), OT_OK);
  std::uint64_t none = 0;
  EXPECT_EQ(ot_read_stream_bytes(dev_, nullptr, 0, &none, 1), OT_OK);
  Bytes stream;
  for (const std::uint64_t expected : {600U, 400U, 0U}) {
    Bytes buffer(600);
    std::uint64_t got = 0;
    EXPECT_EQ(ot_read_stream_bytes(dev_, buffer.data(), buffer.size(), &got, 1),
              expected == 0 ? OT_ERR_TIMEOUT : OT_OK);
    EXPECT_EQ(got, expected);
    stream.insert(stream.end(), buffer.data(), buffer.data() + got);
  }
  const tests::Instrument told{.mask = 1, .divider = 16, .sim = "pace=bytes:1000"};
  EXPECT_EQ(stream, told.bytes());
  EXPECT_EQ(ot_stop_stream_mode(dev_, 2), OT_ERR_ARGUMENT);
  EXPECT_EQ(ot_stop_stream_mode(dev_, 0), OT_OK);
  EXPECT_EQ(ot_close(dev_), OT_OK);
  EXPECT_EQ(misuses(), "");
}

TEST_F(DriverLibrary, ClockGoesOnFromOneOpeningToTheNext) {
  for (const char* settings : {"pace=bytes:8000", "external_hz=1000,1000,1000,1000"}) {
    set_up(settings);
    Bytes records[2];
    for (Bytes& bytes : records) {
      bytes.resize(8000);  // in real time not filled within the 20 ms of the read
      std::uint64_t got = 0;
      ASSERT_EQ(ot_open_serial(&dev_, "sim:0"), OT_OK);
      EXPECT_EQ(ot_set_stream_interface(dev_, 0, 0), OT_OK);
      EXPECT_EQ(ot_set_stream_channel_mask(dev_, 1), OT_OK);
      EXPECT_EQ(ot_start_stream_mode(dev_, 1, 0), OT_OK);
      EXPECT_EQ(ot_read_stream_bytes(dev_, bytes.data(), bytes.size(), &got, 20), OT_OK);
      EXPECT_EQ(ot_stop_stream_mode(dev_, 1), OT_OK);
      EXPECT_EQ(ot_close(dev_), OT_OK);
      bytes.resize(4);  // of the first record, which count in steps of 4.3 ms
    }
    EXPECT_LT(records[0], records[1]) << settings;
  }
}

TEST_F(DriverLibrary, FailsOnCommandAndComplainsOfMisuse) {
  set_up(
      "pace=bytes:1000;fail=ot_open:1:-4:effect;fail=ot_stop_stream_mode:2:-2;"
      "fail=ot_start_stream_mode:1:7:effect:detail=too: hot");
  EXPECT_EQ(ot_open(&dev_, "sim:0", 9600), OT_ERR_FORMAT);
  EXPECT_EQ(dev_, nullptr);
  ASSERT_EQ(ot_open(&dev_, "sim:0", 9600), OT_OK);
  EXPECT_EQ(ot_start_stream_mode(dev_, 0, 0), 7);
  EXPECT_STREQ(ot_last_error(dev_), "too: hot");
  EXPECT_EQ(ot_set_stream_channel_mask(dev_, 1), OT_OK) << "the stream still runs";
  EXPECT_EQ(misuses(), "");
  std::uint8_t byte = 0;
  std::uint64_t got = 0;
  EXPECT_EQ(ot_read_stream_bytes(dev_, &byte, 1, &got, 1), OT_ERR_NOT_OPEN);
  EXPECT_EQ(ot_stop_stream_mode(dev_, 1), OT_ERR_NOT_OPEN);
  EXPECT_EQ(ot_start_stream_mode(dev_, 0, 0), OT_OK);
  EXPECT_EQ(ot_set_stream_channel_mask(dev_, 1), kBusy);
  ot_identity identity{};
  std::thread([&] { EXPECT_EQ(ot_identify(dev_, &identity), OT_OK); }).join();
  EXPECT_EQ(ot_stop_stream_mode(dev_, 1), OT_ERR_IO);  // commanded, without a text
  EXPECT_STREQ(ot_last_error(dev_), "");
  EXPECT_EQ(ot_stop_stream_mode(dev_, 1), OT_OK);  // and not with flag 0
  EXPECT_EQ(ot_start_stream_mode(dev_, 0, 0), OT_OK);
  EXPECT_EQ(ot_close(dev_), OT_OK);
  EXPECT_EQ(ot_close(dev_), OT_ERR_NOT_OPEN);
  EXPECT_EQ(misuses(),
            "ot_read_stream_bytes ot_stop_stream_mode ot_set_stream_channel_mask ot_identify "
            "ot_stop_stream_mode ot_close ot_close ");
}

TEST_F(DriverLibrary, ComplainsAtTheEndOfWhatWasNotGivenBack) {
  set_up("");
  ot_discovery_list* list = nullptr;
  EXPECT_EQ(ot_discover(&list), OT_OK);
  EXPECT_EQ(ot_open(&dev_, "sim:0", 9600), OT_OK);
  reload();
  EXPECT_TRUE(tests::read_file(scratch_.file("ledger"))
                  .ends_with("misuse end: an instrument was not closed\n"
                             "misuse end: a discovery list was not freed\nend misuses=2\n"));
}

TEST_F(DriverLibrary, SaysOnceThatItIsSimulatedAndThatItsLedgerEnds) {
  ::setenv("ORVO_SIM", "ledger=/dev/full;fail=ot_open:1:-4", 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ot_open(&dev_, "sim:0", 9600), OT_ERR_FORMAT);
  for (int k = 0; k < 2; ++k) {
    ASSERT_EQ(ot_open(&dev_, "sim:0", 9600), OT_OK);
    EXPECT_EQ(ot_close(dev_), OT_OK);
    dev_ = nullptr;
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ORVO_SIM: cannot write the ledger '/dev/full', which ends here\n"
            "liborvo_timing.so.0: simulated instrument; results say nothing about a real one\n");
}

}  // namespace
}  // namespace orvo::simulator
