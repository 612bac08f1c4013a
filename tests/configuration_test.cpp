#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvo/verification/config.h"
#include "orvo/verification/config_file.h"
#include "orvo/verification/driver.h"
#include "orvo/verification/number_text.h"
#include "orvo/verification/source_dir.h"

namespace orvo::verification {
namespace {

TEST(Configuration, LineSetsItsFieldAndNothingElse) {
  struct Case {
    const char* key;
    const char* value;
    void (*expect)(Config&);
  };
  const auto unchanged = [](Config&) {};
  const Case cases[] = {
      {"control_port", " /dev/ttyUSB0\r", [](Config& c) { c.control_port = "/dev/ttyUSB0"; }},
      {"Usb_Serial", "aB 1", [](Config& c) { c.usb_serial = "aB 1"; }},
      {"usb_serial", "", unchanged},
      {"usb_serial", " \t\v\f\r\n", unchanged},
      {"capture_s", "0.5s", [](Config& c) { c.capture_s = 0.5; }},
      {" Frequencies_HZ ", " 1000; 2500 ,5000  ",
       [](Config& c) {
         c.frequencies_hz = {1000, 2500, 5000};
       }},
      {"cal_freq_hz", "1e6", [](Config& c) { c.frequencies_hz = {1e6}; }},
      {"frequencies_hz", "2000,-1,0,1000,2000",
       [](Config& c) {
         c.frequencies_hz = {2000, 1000, 2000};
       }},
      {"frequencies_hz", "1000,abc,2000", [](Config& c) { c.frequencies_hz = {1000}; }},
      {"frequencies_hz", "0,-5", unchanged},
      {"frequencies_hz", "inf,1000", unchanged},
      {"frequencies_hz", "5,1e999,7", [](Config& c) { c.frequencies_hz = {5}; }},
      {"frequencies-hz", "1000", unchanged},
      {"channel_mask", "0x13", [](Config& c) { c.channel_mask = 3; }},
      {"channel_mask", "0b101", [](Config& c) { c.channel_mask = 5; }},
      {"tdl_index", "300", [](Config& c) { c.tdl_index = 44; }},
      {"packed_bits", "256", [](Config& c) { c.packed_bits = 0; }},
      {"packed_quantum_ps", "0x10", [](Config& c) { c.packed_quantum_ps = 16; }},
      {"packed_quantum_ps", "65537", [](Config& c) { c.packed_quantum_ps = 1; }},
      {"chunk_bytes", "0x100", [](Config& c) { c.chunk_bytes = 0; }},
      {"queue_chunks", "010", [](Config& c) { c.queue_chunks = 10; }},
      {"tolerance_ppm", "-1e1", [](Config& c) { c.tolerance_ppm = -10; }},
      {"min_tags_per_channel", "-1", [](Config& c) { c.min_tags_per_channel = ~0ULL; }},
      {"output_root", "a b/../c", [](Config& c) { c.output_root = "a b/../c"; }},
      {"", "1", unchanged},
      {"help", "1", unchanged},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key) + "=" + c.value);
    Config config;
    Config expected;
    apply_config_line(config, c.key, c.value);
    c.expect(expected);
    EXPECT_TRUE(config == expected);
  }
}

/// The message with which `Exception` refuses the setting.
template <class Exception>
std::string refusal(const std::string& key, const std::string& value) {
  Config config;
  try {
    apply_config_line(config, key, value);
  } catch (const Exception& error) {
    EXPECT_TRUE(config == Config());
    return error.what();
  }
  return "accepted";
}

TEST(Configuration, MalformedNumberThrowsTheConversionsNameAndKeepsTheField) {
  const std::string too_large = "18446744073709551616";
  const std::string too_large_in_binary = "0b1" + std::string(64, '0');
  for (const char* key : {"capture_s", "tolerance_ppm"}) {
    EXPECT_EQ(refusal<std::invalid_argument>(key, "fast"), "stod");
    EXPECT_EQ(refusal<std::out_of_range>(key, "1e999"), "stod");
  }
  for (const char* key : {"channel_mask", "tdl_index", "packed_bits", "packed_quantum_ps"}) {
    EXPECT_EQ(refusal<std::invalid_argument>(key, "x"), "stoul");
    EXPECT_EQ(refusal<std::out_of_range>(key, too_large), "stoul");
    EXPECT_EQ(refusal<std::out_of_range>(key, too_large_in_binary), "stoul");
  }
  for (const char* key : {"chunk_bytes", "queue_chunks", "min_tags_per_channel"}) {
    EXPECT_EQ(refusal<std::invalid_argument>(key, "x"), "stoull");
    EXPECT_EQ(refusal<std::out_of_range>(key, too_large), "stoull");
  }
}

TEST(Configuration, UnsignedNumbersOfEveryBase) {
  constexpr unsigned long kMax = std::numeric_limits<unsigned long>::max();
  EXPECT_EQ(parse_unsigned(" \t+0b101x"), 5u);
  EXPECT_EQ(parse_unsigned("0B11"), 3u);
  EXPECT_EQ(parse_unsigned("0b0b1"), 0u);
  EXPECT_EQ(parse_unsigned("0b2"), 0u);
  EXPECT_EQ(parse_unsigned("0b"), 0u);
  EXPECT_EQ(parse_unsigned("-0b1"), kMax);
  EXPECT_EQ(parse_unsigned("0b" + std::string(64, '1')), kMax);
  EXPECT_EQ(parse_unsigned("-0x10"), kMax - 15);
  EXPECT_EQ(parse_unsigned("0179"), 15u);
  EXPECT_THROW((void)parse_unsigned("+-0b1"), std::invalid_argument);
}

TEST(Configuration, ValidityRule) {
  const struct {
    const char* key;
    const char* value;
    bool valid;
  } cases[] = {{"capture_s", "inf", true},     {"capture_s", "0", false},
               {"capture_s", "-1", false},     {"capture_s", "nan", false},
               {"tolerance_ppm", "nan", true}, {"packed_quantum_ps", "0x10000", false}};
  for (const auto& c : cases) {
    Config config;
    apply_config_line(config, c.key, c.value);
    EXPECT_EQ(is_valid(config), c.valid) << c.key << '=' << c.value;
  }
  Config config;
  config.frequencies_hz.clear();
  EXPECT_FALSE(is_valid(config));
}

class ConfigFile : public testing::Test {
 protected:
  ConfigFile() { std::filesystem::create_directories(dir_); }
  ~ConfigFile() override { std::filesystem::remove_all(dir_); }

  std::filesystem::path write(const char* name, const std::string& text) const {
    std::ofstream(dir_ / name) << text;
    return dir_ / name;
  }

  const std::filesystem::path dir_ =
      testing::TempDir() + "configuration_test_" + std::to_string(getpid());
};

TEST_F(ConfigFile, LinesAreStrippedOfCommentsAndSplitAtTheFirstEquals) {
  const auto path = write("a.ini",
                          "[section]\n\n# tdl_index=9\nno separator\n"
                          "capture_s=0.5#0.9#1\ncapture_s = # nothing\r\n"
                          "output_root=  /data/out=1  # results # of today\nusb_serial=first\n"
                          "usb_serial=last");
  Config config;
  EXPECT_EQ(apply_first_config_file(config, {dir_ / "missing.ini", path}), path);
  Config expected;
  expected.capture_s = 0.5;
  expected.output_root = "/data/out=1";
  expected.usb_serial = "last";
  EXPECT_TRUE(config == expected);
}

TEST_F(ConfigFile, FirstThatOpensEndsTheSearch) {
  const auto second = write("second.ini", "tdl_index=2\n");
  Config config;
  for (const auto& first : {write("empty.ini", ""), dir_}) {  // a folder opens and reads as empty
    EXPECT_EQ(apply_first_config_file(config, {first, second}), first);
    EXPECT_EQ(config.tdl_index, 0);
  }
  EXPECT_EQ(apply_first_config_file(config, {dir_ / "missing.ini"}), std::nullopt);
}

TEST_F(ConfigFile, ShippedFileRestatesTheDefaults) {
  Config config;
  config.capture_s = config.tolerance_ppm = 1;
  config.frequencies_hz = {1};
  config.channel_mask = config.tdl_index = config.packed_bits = 1;
  config.packed_quantum_ps = 1;
  config.chunk_bytes = config.queue_chunks = config.min_tags_per_channel = 1;
  EXPECT_TRUE(apply_first_config_file(
      config, {source_dir() / "verification" / "ot_verify_overflow_frequency.ini"}));
  EXPECT_TRUE(config == Config());
}

TEST(ConfigCandidates, ProgramFolderThenWorkingFolderThenSourceTree) {
  const std::filesystem::path working_dir = std::filesystem::current_path();
  const auto first = [&](std::string program) {
    char* argv[] = {program.data(), nullptr};
    const auto candidates = config_candidates(argv);
    EXPECT_EQ(candidates.size(), 3u);
    EXPECT_EQ(candidates.at(1), working_dir / "ot_verify_overflow_frequency.ini");
    EXPECT_EQ(candidates.at(2), source_dir() / "verification/ot_verify_overflow_frequency.ini");
    return candidates.at(0).string();
  };
  const std::string name = "/ot_verify_overflow_frequency.ini";
  EXPECT_EQ(first("/opt/x/../tool"), "/opt/x/.." + name);
  EXPECT_EQ(first("bin/tool"), (working_dir / "bin").string() + name);
  EXPECT_EQ(first("tool"), working_dir.string() + name);
  EXPECT_EQ(first(""), working_dir.string() + name);
}

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

/// Runs the tool with its console redirected.
Outcome run(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "tool");
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  std::ostringstream out;
  std::ostringstream err;
  std::streambuf* const old_out = std::cout.rdbuf(out.rdbuf());
  std::streambuf* const old_err = std::cerr.rdbuf(err.rdbuf());
  const int status = run_tool(static_cast<int>(arguments.size()), argv.data());
  std::cout.rdbuf(old_out);
  std::cerr.rdbuf(old_err);
  return {status, out.str(), err.str()};
}

TEST(Driver, HelpWinsOverEverythingElse) {
  for (const char* word : {"--help", "-h", "/?", "-?"}) {
    const Outcome outcome = run({"--capture-s=fast", "--", word});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out.size(), 553u);
    EXPECT_TRUE(outcome.out.starts_with("ot_verify_overflow_frequency\n\nVerify packed-delta "));
  }
}

TEST(Driver, RefusesBeforeAnythingIsCreated) {
  const std::string invalid = "invalid overflow_frequency configuration\n";
  // No folder can be created below a device file, so a configuration that gets there is told.
  const std::string root = "--output-root=/dev/null/a-b=c";
  const std::string no_folder = "filesystem error: cannot create directories: Not a directory [";
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string message;
  } cases[] = {
      {{root, "--capture-s=0"}, 64, invalid},
      {{root, "packed-bits=256"}, 64, invalid},
      {{root, "--capture-s=fast"}, 1, "stod\n"},
      {{root, "--capture-s=0", "--tdl-index=x"}, 1, "stoul\n"},
      {{root, "--PACKED-bits=0", "--packed_bits=8"}, 1, no_folder + "/dev/null/a-b=c/"},
      {{root, "-packed-bits=0", "--packed-bits", "--", "--HELP", "--help=1", "----tdl-index=x"},
       1,
       no_folder + "/dev/null/a-b=c/"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments.back());
    const Outcome outcome = run(c.arguments);
    EXPECT_EQ(outcome.status, c.status);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.substr(0, c.message.size()), c.message);
  }
}

}  // namespace
}  // namespace orvo::verification
