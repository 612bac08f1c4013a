// Finding and opening instruments, and what a failing driver call becomes.
#include "orvo/timing/device/device.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include "orvo/timing/device/library_status.h"
#include "support/error_of.h"
#include "support/scratch.h"
#include "support/scripted_driver.h"

namespace orvo::tests {
namespace {

using timing::Device;

ot_identity identity_of(const std::array<std::string, 4>& texts) {
  ot_identity record;
  std::memset(&record, 'x', sizeof record);  // what follows a text's end must not matter
  std::memcpy(record.id_field_1, texts[0].data(), texts[0].size());
  std::memcpy(record.id_field_2, texts[1].data(), texts[1].size());
  std::memcpy(record.id_field_3, texts[2].data(), texts[2].size());
  std::memcpy(record.description, texts[3].data(), texts[3].size());
  return record;
}

TEST(LibraryStatus, WithoutATextOrADetail) {
  using Text = std::optional<std::string>;
  const struct {
    Text status_text, detail_text;
    const char* error;
  } cases[] = {{"T", "", "call: T [-3]"}, {"T", {}, "call: T [-3]"}, {{}, "D", "call:  (D) [-3]"}};
  ScriptedDriver driver;
  const Device device = Device::open("p", 1);
  for (const auto& c : cases) {
    driver.status_text = c.status_text;
    driver.detail_text = c.detail_text;
    EXPECT_EQ(error_of([&] { timing::detail::check(-3, "call", device.handle); }), c.error);
  }
}

TEST(Discovery, ListsWhatTheLibraryListsAndReleasesTheList) {
  ScriptedDriver driver;
  const std::string full(16, 'a');
  const std::string longest(48, 'f');
  driver.instruments = {
      {{}, identity_of({full, std::string("b\xE9 \0cd", 6), std::string("\0e", 2), longest})},
      {"port 1", {}}};
  const std::vector<timing::DiscoveredDevice> devices = Device::discover();
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].port, "");
  EXPECT_EQ(devices[0].identity.id_field_1, full);
  EXPECT_EQ(devices[0].identity.id_field_2, "b\xE9 ");
  EXPECT_EQ(devices[0].identity.id_field_3, "");
  EXPECT_EQ(devices[0].identity.description, longest);
  EXPECT_EQ(devices[1].port, "port 1");
  EXPECT_EQ(devices[1].identity.description, "");
  EXPECT_EQ(driver.take_calls(), "discover; count; port 0; identity 0; port 1; identity 1; free; ");
}

TEST(Open, MakesTheCallsAndClosesOnce) {
  const std::string all = "discover; count; port 0; identity 0; port 1; identity 1; free; ";
  const struct {
    const char* port;  // or the first one
    int baud;
    std::size_t instruments;
    const char *failing, *error;
    std::string calls;
  } cases[] = {
      {"p", 3000000, 0, "-", "no error", "open_serial p; close; "},
      {"p", 115200, 0, "-", "no error", "open p 115200; close; "},
      {"p", 3000000, 0, "open", "open: status text [-2]", "open_serial p; status_string -2; "},
      {{}, 9600, 2, "-", "no error", all + "open first 9600; close; "},
      {{}, 9600, 2, "open", "open: status text [-2]", all + "open first 9600; status_string -2; "},
      {{}, 9600, 0, "-", "open_first: no ORVO device found [-5]", "discover; count; free; "},
      {{}, 9600, 2, "discover", "discover: status text [-2]", "discover; status_string -2; "},
  };
  for (const auto& c : cases) {
    ScriptedDriver driver;
    driver.failing = c.failing;
    driver.instruments.resize(c.instruments);
    if (c.instruments > 0) driver.instruments[0].port = "first";
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
  ScriptedDriver driver;
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
