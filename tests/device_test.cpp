// Finding and opening instruments, and what a failing driver call becomes.
#include "orvo/timing/device/device.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include "orvo/timing/device/library_status.h"
#include "support/scratch.h"
#include "support/scripted_driver.h"

namespace orvo::tests {
namespace {

using timing::Device;

TEST(LibraryStatus, MayHaveNeitherTextNorDetail) {
  driver = {};
  const Device device = Device::open("p", 1);
  for (const auto& [text, detail, error] : {std::array{"T", "", "call: T [-3]"},
                                            {"T", nullptr, "call: T [-3]"},
                                            {nullptr, "D", "call:  (D) [-3]"}}) {
    driver.status_text = text;
    driver.detail_text = detail;
    EXPECT_EQ(error_of([&] { timing::detail::check(-3, "call", device.handle); }), error);
  }
}

TEST(Discovery, ListsWhatTheLibraryLists) {
  ot_identity identity;
  std::memset(&identity, 'x', sizeof identity);  // what follows a text's end must not matter
  std::memcpy(identity.id_field_2, "b\xE9 \0cd", 6);
  std::memcpy(identity.id_field_3, "\0e", 2);
  driver = {};
  driver.instruments = {{nullptr, &identity}, {"port 1", nullptr}};
  const std::vector<timing::DiscoveredDevice> devices = Device::discover();
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].port, "");
  EXPECT_EQ(devices[0].identity.id_field_1, std::string(sizeof identity.id_field_1, 'x'));
  EXPECT_EQ(devices[0].identity.id_field_2, "b\xE9 ");
  EXPECT_EQ(devices[0].identity.id_field_3, "");
  EXPECT_EQ(devices[0].identity.description, std::string(sizeof identity.description, 'x'));
  EXPECT_EQ(devices[1].port, "port 1");
  EXPECT_EQ(devices[1].identity.description, "");
}

TEST(Open, MakesTheCallsAndClosesOnce) {
  const char* const failed = "open: status text [-2]";
  const struct {
    const char* port;  // or the first one
    int baud;
    std::vector<ScriptedDriver::Instrument> instruments;
    const char *failing, *error, *calls;
  } cases[] = {
      {"p", 3000000, {}, "-", "no error", "open_serial p; close; "},
      {"p", 115200, {}, "-", "no error", "open p 115200; close; "},
      {"p", 3000000, {}, "open", failed, "open_serial p; status_string -2; "},
      {{}, 9600, {{"1"}, {"2"}}, "-", "no error", "discover; free; open 1 9600; close; "},
      {{}, 9600, {{"1"}}, "open", failed, "discover; free; open 1 9600; status_string -2; "},
      {{}, 9600, {}, "-", "open_first: no ORVO device found [-5]", "discover; free; "},
  };
  for (const auto& c : cases) {
    driver = {};
    driver.failing = c.failing;
    driver.instruments = c.instruments;
    const auto open = [&] {
      const std::string_view more = "p and more";
      const Device device =
          c.port != nullptr ? Device::open(more.substr(0, 1), c.baud) : Device::open_first(c.baud);
      EXPECT_EQ(device.stream_mode, timing::Mode::internal);
    };
    EXPECT_EQ(error_of(open), c.error);
    EXPECT_EQ(driver.take_calls(), c.calls);
  }
}

TEST(FineTables, FileReplacesAllTablesOrNone) {
  const ScratchDirectory scratch;
  std::filesystem::current_path(scratch.path());
  driver = {};
  driver.instruments.resize(1);
  const std::string magic("TLUT\1\0\0\0", 8);
  const std::string one("\1\0\0\0\2\0\0\0\0\0\0\x80", 12);  // the entry is 2 - 2^63
  const std::string largest = std::string("\0\0\x10\0", 4) + std::string(8 << 20, '\xFF');
  const std::string larger = std::string("\1\0\x10\0", 4) + std::string(9 << 20, '\xFF');
  const std::string good = magic + one + one + one + one;
  const std::string entry = "1:-9223372036854775806 ";
  const std::string defaults = "8192:3332 8192:3332 8192:3332 8192:3332 ";
  std::vector<std::pair<std::string, std::string>> cases = {
      {magic + one + one + one + largest + "more", entry + entry + entry + "1048576:-1 "},
      {magic + one + one + one + larger, defaults},
      {magic + one + std::string(4, '\0') + one + one, defaults},
      {"TLUT\2" + good.substr(5), defaults},
      {"TLUt" + good.substr(4), defaults},
      {good, entry + entry + entry + entry}};
  for (std::size_t size = 0; size < good.size(); ++size) {
    cases.emplace_back(good.substr(0, size), defaults);
  }
  for (const auto& [file, tables] : cases) {
    write_file("fine_lut.bin", file);
    std::string text;
    for (const std::vector<std::int64_t>& table : Device::open_first(9600).fine_lut) {
      text += std::to_string(table.size()) + ':' + std::to_string(table.back()) + ' ';
    }
    EXPECT_EQ(text, tables) << file.size() << " bytes";
  }
  write_file("fine_lut.bin", good);
  EXPECT_EQ(Device::open("p", 9600).fine_lut[3].size(), 8192u);  // reads no file
  std::filesystem::current_path("/");
}

}  // namespace
}  // namespace orvo::tests
