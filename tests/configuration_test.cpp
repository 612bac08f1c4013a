#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "orvo/verification/config.h"
#include "support/scratch.h"

namespace orvo::verification {
namespace {

TEST(Configuration, LineSetsItsFieldAndNothingElse) {
  const auto unchanged = [](Config&) {};
  const struct {
    const char *key, *value;
    void (*expect)(Config&);
  } cases[] = {
      {"control_port", " /dev/ttyUSB0\r", [](Config& c) { c.control_port = "/dev/ttyUSB0"; }},
      {" Usb_Serial ", "aB 1", [](Config& c) { c.usb_serial = "aB 1"; }},
      {"usb_serial", " \t\v\f\r\n", unchanged},
      {"capture_s", "0.5s", [](Config& c) { c.capture_s = 0.5; }},
      {"cal_freq_hz", "1e6", [](Config& c) { c.frequencies_hz = {1e6}; }},
      {"frequencies-hz", "1000", unchanged},
      {"channel_mask", "0x13", [](Config& c) { c.channel_mask = 3; }},
      {"tdl_index", "300", [](Config& c) { c.tdl_index = 44; }},
      {"packed_bits", "0b100000010", [](Config& c) { c.packed_bits = 2; }},
      {"packed_quantum_ps", "65537", [](Config& c) { c.packed_quantum_ps = 1; }},
      {"chunk_bytes", "0x100", [](Config& c) { c.chunk_bytes = 0; }},
      {"queue_chunks", "010", [](Config& c) { c.queue_chunks = 10; }},
      {"tolerance_ppm", "-1e1", [](Config& c) { c.tolerance_ppm = -10; }},
      {"min_tags_per_channel", "0x9", [](Config& c) { c.min_tags_per_channel = 0; }},
      {"output_root", "a b/../c", [](Config& c) { c.output_root = "a b/../c"; }},
      {"help", "1", unchanged},
  };
  for (const auto& c : cases) {
    Config config, expected;
    apply_config_line(config, c.key, c.value);
    c.expect(expected);
    EXPECT_TRUE(config == expected) << c.key << '=' << c.value;
  }
}

TEST(Configuration, FrequenciesArePositiveNumbersUpToTheFirstOtherThing) {
  const std::pair<const char*, std::vector<double>> cases[] = {
      {" 1000; 2500 ,5000  ", {1000, 2500, 5000}},
      {"2000,-1,0,1000,2000", {2000, 1000, 2000}},
      {"1000,abc,2000", {1000}},
      {"5,1e999,7", {5}},
      {"0,-5", Config().frequencies_hz},
      {"inf,1000", Config().frequencies_hz},
  };
  for (const auto& [text, expected] : cases) {
    Config config;
    apply_config_line(config, "frequencies_hz", text);
    EXPECT_EQ(config.frequencies_hz, expected) << text;
  }
}

TEST(Configuration, MalformedNumberThrowsTheConversionsNameAndKeepsTheField) {
  for (const auto& [key, conversion] :
       {std::pair("tolerance_ppm", "stod"), {"packed_bits", "stoul"}, {"chunk_bytes", "stoull"}}) {
    for (const std::string& value : {std::string("x"), std::string(400, '9')}) {
      Config config;
      try {
        apply_config_line(config, key, value);
        ADD_FAILURE() << key;
      } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), conversion);
      }
      EXPECT_TRUE(config == Config());
    }
  }
}

TEST(Configuration, UnsignedNumbersOfEveryBase) {
  const std::pair<const char*, unsigned long> cases[] = {
      {" \t+0b101x", 5}, {"0B11", 3},      {"0b2", 0},  {"0b", 0},
      {"-0b1", ~0UL},    {"-0x10", ~15UL}, {"0179", 15}};
  for (const auto& [text, value] : cases) EXPECT_EQ(parse_unsigned(text), value) << text;
  EXPECT_THROW((void)parse_unsigned("+-0b1"), std::invalid_argument);
  EXPECT_THROW((void)parse_unsigned("0b1" + std::string(64, '0')), std::out_of_range);
}

TEST(Configuration, ValidityRule) {
  const std::pair<void (*)(Config&), bool> cases[] = {
      {[](Config& c) { c.capture_s = HUGE_VAL; }, true},
      {[](Config& c) { c.capture_s = 0; }, false},
      {[](Config& c) { c.capture_s = NAN; }, false},
      {[](Config& c) { c.frequencies_hz.clear(); }, false},
      {[](Config& c) { c.packed_bits = 0; }, false},
      {[](Config& c) { c.packed_quantum_ps = 0; }, false}};
  for (const auto& [change, valid] : cases) {
    Config config;
    change(config);
    EXPECT_EQ(is_valid(config), valid);
  }
}

class ConfigFile : public testing::Test {
 protected:
  std::string write(const char* name, const std::string& text) const {
    tests::write_file(scratch_.file(name), text);
    return scratch_.file(name);
  }

  const tests::ScratchDirectory scratch_;
  Config config_;
};

TEST_F(ConfigFile, FirstThatOpensIsAppliedLineByLine) {
  const std::string path = write("a.ini",
                                 "[section]\n\n# tdl_index=9\nno separator\n"
                                 "capture_s=0.5#0.9#1\ncapture_s = # nothing\r\n"
                                 "output_root=  /out=1  # results # today\nusb_serial=a\n"
                                 "usb_serial=last");
  const std::string second = write("second.ini", "tdl_index=2\n");
  EXPECT_EQ(apply_first_config_file(config_, {scratch_.file("missing.ini"), path, second}), path);
  Config expected;
  expected.capture_s = 0.5;
  expected.output_root = "/out=1";
  expected.usb_serial = "last";
  EXPECT_TRUE(config_ == expected);
  EXPECT_EQ(apply_first_config_file(config_, {scratch_.file(""), second}), scratch_.file(""));
  EXPECT_EQ(apply_first_config_file(config_, {scratch_.file("missing.ini")}), std::nullopt);
}

TEST_F(ConfigFile, ShippedFileRestatesTheDefaults) {
  config_.capture_s = config_.tolerance_ppm = 1;
  config_.frequencies_hz = {1};
  config_.channel_mask = config_.tdl_index = config_.packed_bits = 1;
  config_.packed_quantum_ps = 1;
  config_.chunk_bytes = config_.queue_chunks = config_.min_tags_per_channel = 1;
  EXPECT_TRUE(apply_first_config_file(config_, {ORVO_SHIPPED_SETTINGS}));
  EXPECT_TRUE(config_ == Config());
}

}  // namespace
}  // namespace orvo::verification
