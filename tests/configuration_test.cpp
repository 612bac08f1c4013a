#include <gtest/gtest.h>

#include <string>

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
      // Positive numbers up to the first other thing.
      {"frequencies_hz", " 10; 2.5 ,5  ",
       [](Config& c) {
         c.frequencies_hz = {10, 2.5, 5};
       }},
      {"frequencies_hz", "2,-1,0,1,2",
       [](Config& c) {
         c.frequencies_hz = {2, 1, 2};
       }},
      {"frequencies_hz", "1000,abc,2000", [](Config& c) { c.frequencies_hz = {1000}; }},
      {"frequencies_hz", "5,1e999,7", [](Config& c) { c.frequencies_hz = {5}; }},
      {"frequencies_hz", "0,-5", unchanged},
      {"channel_mask", "0x13", [](Config& c) { c.channel_mask = 3; }},
      {"tdl_index", "300", [](Config& c) { c.tdl_index = 44; }},
      {"tdl_index", "0179", [](Config& c) { c.tdl_index = 15; }},
      {"tdl_index", "-0x10", [](Config& c) { c.tdl_index = 240; }},
      {"packed_bits", "0b100000010", [](Config& c) { c.packed_bits = 2; }},
      {"packed_bits", "\t+0B101x", [](Config& c) { c.packed_bits = 5; }},
      {"packed_bits", "-0b1", [](Config& c) { c.packed_bits = 255; }},
      {"packed_bits", "0b2", [](Config& c) { c.packed_bits = 0; }},
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

TEST(Configuration, FileIsAppliedLineByLine) {
  const tests::ScratchDirectory scratch;
  tests::write_file(scratch.file("a.ini"),
                    "[section]\n\n# tdl_index=9\nno separator\n"
                    "capture_s=0.5#0.9#1\ncapture_s = # nothing\r\n"
                    "output_root=  /out=1  # results # today\nusb_serial=a\n"
                    "usb_serial=last");
  Config config, expected;
  EXPECT_TRUE(apply_first_config_file(config, {scratch.file("a.ini")}));
  expected.capture_s = 0.5;
  expected.output_root = "/out=1";
  expected.usb_serial = "last";
  EXPECT_TRUE(config == expected);
}

TEST(Configuration, ShippedFileRestatesTheDefaults) {
  Config config;
  config.capture_s = config.tolerance_ppm = 1;
  config.frequencies_hz = {1};
  config.channel_mask = config.tdl_index = config.packed_bits = 1;
  config.packed_quantum_ps = 1;
  config.chunk_bytes = config.queue_chunks = config.min_tags_per_channel = 1;
  EXPECT_TRUE(apply_first_config_file(config, {ORVO_SHIPPED_SETTINGS}));
  EXPECT_TRUE(config == Config());
}

}  // namespace
}  // namespace orvo::verification
