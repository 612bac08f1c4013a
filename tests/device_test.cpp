// Finding and opening instruments, and what a failing driver call becomes.
#include "orvo/timing/device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "orvo/timing/library_status.h"
#include "support/error_of.h"
#include "support/scratch.h"
#include "support/scripted_driver.h"

namespace orvo::tests {
namespace {

using timing::Device;
using timing::Identity;

using Calls = std::vector<std::string>;

ot_identity identity_of(const std::array<std::string, 4>& texts) {
  ot_identity record;
  std::memset(&record, 'x', sizeof record);  // what follows a text's end must not matter
  std::memcpy(record.id_field_1, texts[0].data(), texts[0].size());
  std::memcpy(record.id_field_2, texts[1].data(), texts[1].size());
  std::memcpy(record.id_field_3, texts[2].data(), texts[2].size());
  std::memcpy(record.description, texts[3].data(), texts[3].size());
  return record;
}

TEST(LibraryStatus, BecomesAnErrorWithLabelTextAndDetail) {
  using Text = std::optional<std::string>;
  const struct {
    ot_status status;
    Text status_text;
    Text detail_text;
    const char* error;
  } cases[] = {
      {OT_OK, "T", "D", "no error"},
      {-3, "T", "D", "some_call: T (D) [-3]"},
      {7, "T", "", "some_call: T [7]"},
      {INT32_MIN, "T", std::nullopt, "some_call: T [-2147483648]"},
      {-1, std::nullopt, "D", "some_call:  (D) [-1]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    ScriptedDriver driver;
    const Device device = Device::open("p", 1);
    driver.calls.clear();
    driver.status_text = c.status_text;
    driver.detail_text = c.detail_text;
    EXPECT_EQ(error_of([&] { timing::detail::check(c.status, "some_call", device.handle); }),
              c.error);
    EXPECT_EQ(driver.calls.size(), c.status == OT_OK ? 0u : 2u);
  }
  ScriptedDriver driver;
  EXPECT_EQ(error_of([] { timing::detail::check(-2, "some_call", nullptr); }),
            "some_call: status text [-2]");
  EXPECT_EQ(driver.calls, (Calls{"ot_status_string -2"}));
}

TEST(Identity, TextsEndAtTheirFirstNulOrFillTheirField) {
  const Identity identity =
      Identity::from_c(identity_of({std::string(16, 'a'), std::string("b\xE9 \0cd", 6),
                                    std::string("\0e", 2), std::string(48, 'f')}));
  EXPECT_EQ(identity.id_field_1, std::string(16, 'a'));
  EXPECT_EQ(identity.id_field_2, "b\xE9 ");
  EXPECT_EQ(identity.id_field_3, "");
  EXPECT_EQ(identity.description, std::string(48, 'f'));
}

TEST(Discovery, ListsWhatTheLibraryListsAndReleasesTheList) {
  ScriptedDriver driver;
  const std::string nul(1, '\0');
  driver.instruments = {{std::nullopt, identity_of({"A" + nul, "B" + nul, "C" + nul, "D" + nul})},
                        {"port 1", std::nullopt}};
  const std::vector<timing::DiscoveredDevice> devices = Device::discover();
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].port, "");
  EXPECT_EQ(devices[0].identity.id_field_1, "A");
  EXPECT_EQ(devices[0].identity.description, "D");
  EXPECT_EQ(devices[1].port, "port 1");
  EXPECT_EQ(devices[1].identity.description, "");
  EXPECT_EQ(driver.calls,
            (Calls{"ot_discover preset null", "ot_discover_count", "ot_discover_port 0",
                   "ot_discover_identity 0", "ot_discover_port 1", "ot_discover_identity 1",
                   "ot_discover_free"}));
}

TEST(Discovery, FailureCarriesNoDetailAndReleasesNothing) {
  ScriptedDriver driver;
  driver.failures = {{"ot_discover ", 12}};
  EXPECT_EQ(error_of([] { (void)Device::open_first(3'000'000); }), "discover: status text [12]");
  EXPECT_EQ(driver.calls, (Calls{"ot_discover preset null", "ot_status_string 12"}));
}

TEST(Open, RateChoosesTheCallAndTheDestructorClosesOnce) {
  const std::string_view longer = "/dev/ttyX and more";
  for (const auto& [baud, call] :
       {std::pair(3'000'000, "ot_open_serial \"/dev/ttyX\" preset null"),
        std::pair(115'200, "ot_open \"/dev/ttyX\" 115200 preset null")}) {
    ScriptedDriver driver;
    {
      const Device device = Device::open(longer.substr(0, 9), baud);
      EXPECT_NE(device.handle, nullptr);
      EXPECT_EQ(device.stream_mode, timing::Mode::internal);
    }
    EXPECT_EQ(driver.calls, (Calls{call, "ot_close"}));
  }
}

TEST(Open, FailureClosesNothing) {
  ScriptedDriver driver;
  driver.failures = {{"ot_open_serial", -2}};
  EXPECT_EQ(error_of([] { (void)Device::open("p", 3'000'000); }), "open: status text [-2]");
  EXPECT_EQ(driver.calls, (Calls{"ot_open_serial \"p\" preset null", "ot_status_string -2"}));
}

TEST(OpenFirst, TakesTheFirstInstrumentAlone) {
  ScriptedDriver driver;
  EXPECT_EQ(error_of([] { (void)Device::open_first(9600); }),
            "open_first: no ORVO device found [-5]");
  EXPECT_EQ(driver.calls,
            (Calls{"ot_discover preset null", "ot_discover_count", "ot_discover_free"}));

  driver.instruments = {{"first", std::nullopt}, {"second", std::nullopt}};
  driver.failures = {{"ot_open \"first\"", -6}};
  EXPECT_EQ(error_of([] { (void)Device::open_first(9600); }), "open: status text [-6]");
  EXPECT_EQ(driver.count("ot_open"), 1u);

  driver.failures.clear();
  { const Device device = Device::open_first(9600); }
  EXPECT_EQ(driver.count("ot_open \"first\" 9600"), 2u);
  EXPECT_EQ(driver.count("ot_open"), 2u);
  EXPECT_EQ(driver.count("ot_close"), 1u);
}

class FineTables : public testing::Test {
 protected:
  using Sizes = std::array<std::size_t, 4>;

  FineTables() { std::filesystem::current_path(scratch_.path()); }
  ~FineTables() override { std::filesystem::current_path(before_); }

  static std::string little_endian(std::uint64_t value, unsigned bytes) {
    std::string text;
    for (unsigned i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i));
    return text;
  }

  /// The last entry of table c, of n entries, is -(1000 c + n); the others are 0.
  static std::string file_of(const std::array<std::uint32_t, 4>& counts,
                             std::uint32_t version = 1) {
    std::string bytes = "TLUT" + little_endian(version, 4);
    for (std::uint64_t c = 0; c < 4; ++c) {
      bytes += little_endian(counts[c], 4);
      if (counts[c] == 0) continue;
      bytes.append(8 * (std::size_t{counts[c]} - 1), '\0');
      bytes += little_endian(-(1000 * c + counts[c]), 8);
    }
    return bytes;
  }

  /// Sizes of the tables after opening with this file, 0 for one that holds the defaults.
  Sizes sizes_with(const std::string& file) {
    write_file("fine_lut.bin", file);
    ScriptedDriver driver;
    driver.instruments = {{"first", std::nullopt}};
    const Device device = Device::open_first(9600);
    const Device defaults = Device::open("first", 9600);
    Sizes sizes{};
    for (std::size_t c = 0; c < 4; ++c) {
      if (device.fine_lut[c] == defaults.fine_lut[c]) continue;
      sizes[c] = device.fine_lut[c].size();
      const auto last = static_cast<std::int64_t>(1000 * c + sizes[c]);
      EXPECT_EQ(device.fine_lut[c].back(), -last);
    }
    return sizes;
  }

 private:
  ScratchDirectory scratch_;
  const std::filesystem::path before_ = std::filesystem::current_path();
};

TEST_F(FineTables, DefaultsRiseToTheCoarsePeriod) {
  write_file("fine_lut.bin", file_of({1, 1, 1, 1}));
  ScriptedDriver driver;
  const Device device = Device::open("p", 9600);  // reads no file
  for (const std::vector<std::int64_t>& table : device.fine_lut) {
    ASSERT_EQ(table.size(), 8192u);
    EXPECT_EQ(std::vector(table.begin(), table.begin() + 5),
              (std::vector<std::int64_t>{0, 19, 37, 56, 74}));
    EXPECT_EQ(table[180], 3330);
    EXPECT_EQ(std::count(table.begin(), table.end(), 3332), 8192 - 181);
  }
}

TEST_F(FineTables, FileReplacesAllTablesOrNone) {
  constexpr Sizes kDefaults{};
  const std::string good = file_of({1, 2, 3, 1 << 20});
  EXPECT_EQ(sizes_with(good + "more"), (Sizes{1, 2, 3, 1 << 20}));
  EXPECT_EQ(sizes_with(good.substr(0, good.size() - 8)), kDefaults);
  EXPECT_EQ(sizes_with(file_of({1, 2, 3, (1 << 20) + 1})), kDefaults);
  EXPECT_EQ(sizes_with(file_of({1, 2, 3, 4}, 2)), kDefaults);
  EXPECT_EQ(sizes_with(file_of({1, 0, 3, 4})), kDefaults);

  const std::string small = file_of({1, 2, 1, 1});
  for (std::size_t size = 0; size < small.size(); ++size) {
    SCOPED_TRACE(size);
    EXPECT_EQ(sizes_with(small.substr(0, size)), kDefaults);
  }
  EXPECT_EQ(sizes_with("TLUt" + small.substr(4)), kDefaults);
  EXPECT_EQ(sizes_with(small), (Sizes{1, 2, 1, 1}));
}

}  // namespace
}  // namespace orvo::tests
