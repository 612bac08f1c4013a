#include "orvo/verification/reports.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "orvo/timing/error.h"

namespace orvo::verification {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCsv =
    "requested_hz,effective_hz,expected_decoded_hz,divider,overflow_required,channel,count,"
    "first_ps,last_ps,measured_hz,ppm_error,pass,stream_file\n"
    "1000.000,999.976,1000.076,30979,1,0,350,-5,349000000000,1000.000000125,-0.123457,1,\"/r/"
    "\"1\\.ortime\"\n"
    "1000.000,999.976,1000.076,30979,1,1,0,0,0,0.000000000,0.000000,0,\"/r/\"1\\.ortime\"\n"
    "1000.000,999.976,1000.076,30979,1,2,0,0,0,0.000000000,0.000000,0,\"/r/\"1\\.ortime\"\n"
    "1000.000,999.976,1000.076,30979,1,3,0,0,0,0.000000000,0.000000,0,\"/r/\"1\\.ortime\"\n"
    "2500000.500,0.000,0.000,0,0,0,0,0,0,0.000000000,0.000000,0,\"/r/2\"\n"
    "2500000.500,0.000,0.000,0,0,1,0,0,0,0.000000000,0.000000,0,\"/r/2\"\n"
    "2500000.500,0.000,0.000,0,0,2,0,0,0,0.000000000,0.000000,0,\"/r/2\"\n"
    "2500000.500,0.000,0.000,0,0,3,0,0,0,0.000000000,0.000000,0,\"/r/2\"\n";

constexpr const char* kJson = R"({
  "verification":"overflow_frequency",
  "pass":false,
  "capture_s":0.350000,
  "packed_delta_bits":16,
  "packed_delta_quantum_ps":8,
  "channel_mask":5,
  "decoded_timestamp_seconds_per_second":0.999900000,
  "tolerance_ppm":25.000,
  "runs":[
    {
      "requested_hz":1000.000,
      "effective_hz":999.976,
      "expected_decoded_hz":1000.076,
      "divider":30979,
      "overflow_required":true,
      "pass":true,
      "stream_file":"/r/\"1\\.ortime",
      "payload_bytes":18446744073709551615,
      "decoded_tags":351,
      "channels":[
        {"channel":0,"count":350,"first_ps":-5,"last_ps":349000000000,"measured_hz":1000.000000125,"ppm_error":-0.123457,"pass":true},
        {"channel":1,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false},
        {"channel":2,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false},
        {"channel":3,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false}
      ]
    },
    {
      "requested_hz":2500000.500,
      "effective_hz":0.000,
      "expected_decoded_hz":0.000,
      "divider":0,
      "overflow_required":false,
      "pass":false,
      "stream_file":"/r/2",
      "payload_bytes":0,
      "decoded_tags":0,
      "channels":[
        {"channel":0,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false},
        {"channel":1,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false},
        {"channel":2,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false},
        {"channel":3,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false}
      ]
    }
  ]
}
)";

constexpr const char* kSummary = R"(Orvo timing packed-delta overflow frequency verification
output=/r "x"
csv=/r/a.csv
json=/r/../a.json
capture_s=0.350
packed_bits=16
packed_quantum_ps=8
decoded_timestamp_seconds_per_second=0.999900000
tolerance_ppm=25.000
pass=false
run requested_hz=1000.000 effective_hz=999.976 expected_decoded_hz=1000.076 divider=30979 overflow_required=true decoded_tags=351 pass=true
  ch0 count=350 measured_hz=1000.000000 ppm_error=-0.123457 pass=true
  ch2 count=0 measured_hz=0.000000 ppm_error=0.000000 pass=false
run requested_hz=2500000.500 effective_hz=0.000 expected_decoded_hz=0.000 divider=0 overflow_required=false decoded_tags=0 pass=false
  ch0 count=0 measured_hz=0.000000 ppm_error=0.000000 pass=false
  ch2 count=0 measured_hz=0.000000 ppm_error=0.000000 pass=false
)";

std::vector<RunResult> two_runs() {
  std::vector<RunResult> runs(2);
  runs[0].requested_hz = 1000;
  runs[0].effective_hz = 999.97614;
  runs[0].expected_decoded_hz = 1000.07615;
  runs[0].divider = 30979;
  runs[0].stream_file = "/r/\"1\\.ortime";
  runs[0].payload_bytes = ~0ULL;
  runs[0].decoded_tags = 351;
  runs[0].overflow_required = runs[0].pass = true;
  runs[0].channels[0] = {350, -5, 349000000000, 1000.000000125, -0.1234567, true};
  runs[1].requested_hz = 2500000.5;
  runs[1].stream_file = "/r/2";
  return runs;
}

class Reports : public testing::Test {
 protected:
  Reports() {
    fs::create_directories(dir_);
    config_.channel_mask = 5;
  }
  ~Reports() override { fs::remove_all(dir_); }

  std::string read(const char* name) const {
    std::ifstream file(dir_ / name);
    EXPECT_TRUE(file) << name;
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  void write(const char* name, const std::string& text) const {
    std::ofstream(dir_ / name) << text;
  }

  const fs::path dir_ = testing::TempDir() + "reports_test_" + std::to_string(getpid());
  Config config_;
};

template <class Action>
std::string io_error(Action action) {
  try {
    action();
  } catch (const timing::Error& error) {
    EXPECT_EQ(error.status(), OT_ERR_IO);
    return error.what();
  }
  return "no error";
}

TEST_F(Reports, CsvListsEveryChannelWithPathsAsTheyAre) {
  write_csv(dir_ / "csv", two_runs());
  EXPECT_EQ(read("csv"), kCsv);
}

TEST_F(Reports, JsonListsEveryChannelWithPathsEscaped) {
  write_json_report(dir_ / "json", config_, two_runs(), false);
  EXPECT_EQ(read("json"), kJson);
}

TEST_F(Reports, SummaryShowsTheChannelsThatCount) {
  const auto summary = [&] {
    return format_summary("/r \"x\"", "/r/a.csv", "/r/../a.json", config_, two_runs(), false);
  };
  EXPECT_EQ(summary(), kSummary);
  config_.channel_mask = 0;
  EXPECT_NE(summary().find("  ch0 "), std::string::npos);
  EXPECT_NE(summary().find("  ch1 "), std::string::npos);
  EXPECT_NE(summary().find("  ch3 "), std::string::npos);
}

TEST_F(Reports, WritingPublishesAndPrints) {
  fs::create_directories(dir_ / "run");
  std::ostringstream console;
  std::streambuf* const old = std::cout.rdbuf(console.rdbuf());
  write_reports(dir_, dir_ / "run", config_, two_runs(), true);
  std::cout.rdbuf(old);

  const std::string root = dir_.string();
  const std::string summary =
      format_summary(dir_ / "run", root + "/run/overflow_frequency.csv",
                     root + "/run/overflow_frequency.json", config_, two_runs(), true);
  EXPECT_EQ(read("latest.csv"), kCsv);
  EXPECT_EQ(read("latest.json"), read("run/overflow_frequency.json"));
  EXPECT_EQ(read("latest_summary.txt"), summary);
  EXPECT_EQ(read("run/overflow_frequency.summary.txt"), summary);
  EXPECT_EQ(console.str(), summary + "latest_summary=" + root + "/latest_summary.txt\n" +
                               "latest_json=" + root + "/latest.json\n");
}

TEST_F(Reports, PublishedCopiesReplaceWhatIsThere) {
  write("new", "new");
  write("kept", "kept");
  write("latest.csv", "an old and longer text");
  fs::create_symlink(dir_ / "kept", dir_ / "latest.json");
  fs::create_symlink(dir_ / "kept", dir_ / "latest_summary.txt");
  publish_latest(dir_, dir_ / "new", dir_ / "new", "summary");
  EXPECT_EQ(read("latest.csv"), "new");
  EXPECT_FALSE(fs::is_symlink(dir_ / "latest.json"));
  EXPECT_EQ(read("latest.json"), "new");
  EXPECT_EQ(read("kept"), "summary");  // the summary alone is written through a link

  fs::create_directory(dir_ / "empty");
  copy_file_checked(dir_ / "new", dir_ / "empty");
  EXPECT_EQ(read("empty"), "new");
}

TEST_F(Reports, FailuresNameTheOutput) {
  const fs::path nowhere = dir_ / "missing" / "file";
  EXPECT_EQ(io_error([&] { write_csv(nowhere, {}); }), "could not open overflow CSV output");
  EXPECT_EQ(io_error([&] { write_json_report(nowhere, config_, {}, true); }),
            "could not open overflow JSON output");
  EXPECT_EQ(io_error([&] { write_text_file(dir_, ""); }), "could not open text output");
  EXPECT_EQ(io_error([&] { publish_latest("/dev/null/x", nowhere, nowhere, ""); }),
            "could not create output root /dev/null/x: Not a directory");
  write("latest.csv", "old");
  EXPECT_EQ(io_error([&] { copy_file_checked(nowhere, dir_ / "latest.csv"); }),
            "could not publish " + (dir_ / "latest.csv").string() + ": No such file or directory");
  EXPECT_FALSE(fs::exists(dir_ / "latest.csv"));
}

}  // namespace
}  // namespace orvo::verification
