#include "orvo/verification/reports.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "orvo/timing/error.h"
#include "orvo/verification/directory_lock.h"
#include "orvo/verification/interruption.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace orvo::verification {
namespace {

namespace fs = std::filesystem;

const std::string kCsvHead =
    "requested_hz,effective_hz,expected_decoded_hz,divider,overflow_required,channel,count,"
    "first_ps,last_ps,measured_hz,ppm_error,pass,stream_file\n";
const std::string kCsvRun =
    "1000.000,999.976,1000.076,30979,1,0,350,-5,349000000000,1000.000000125,-0.123457,1,\"/r/"
    "\"1\\.ortime\"\n"
    "1000.000,999.976,1000.076,30979,1,1,0,0,0,0.000000000,0.000000,0,\"/r/\"1\\.ortime\"\n"
    "1000.000,999.976,1000.076,30979,1,2,0,0,0,0.000000000,0.000000,0,\"/r/\"1\\.ortime\"\n"
    "1000.000,999.976,1000.076,30979,1,3,0,0,0,0.000000000,0.000000,0,\"/r/\"1\\.ortime\"\n";

const std::string kJsonHead = R"({
  "verification":"overflow_frequency",
  "pass":false,
  "capture_s":0.350000,
  "packed_delta_bits":16,
  "packed_delta_quantum_ps":8,
  "channel_mask":5,
  "decoded_timestamp_seconds_per_second":0.999900000,
  "tolerance_ppm":25.000,
  "runs":[
)";
const std::string kJsonRun = R"(    {
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
    })";

std::vector<RunResult> two_runs() {
  RunResult run;
  run.requested_hz = 1000;
  run.effective_hz = 999.97614;
  run.expected_decoded_hz = 1000.07615;
  run.divider = 30979;
  run.stream_file = "/r/\"1\\.ortime";
  run.payload_bytes = ~0ULL;
  run.decoded_tags = 351;
  run.overflow_required = run.pass = true;
  run.channels[0] = {350, -5, 349000000000, 1000.000000125, -0.1234567, true};
  return {run, run};
}

class Reports : public testing::Test {
 protected:
  Reports() { config_.channel_mask = 5; }

  [[nodiscard]] std::string read(const std::string& name) const {
    return tests::read_file(scratch_.file(name));
  }
  void write(const char* name, const std::string& text) const {
    tests::write_file(scratch_.file(name), text);
  }
  const tests::ScratchDirectory scratch_;
  const fs::path dir_ = scratch_.path();
  Config config_;
};

TEST_F(Reports, WritingPublishesAndPrints) {
  fs::create_directories(dir_ / "run");
  testing::internal::CaptureStdout();
  write_reports(dir_, dir_ / "run", config_, two_runs(), false);
  const std::string console = testing::internal::GetCapturedStdout();
  const std::string text = read("run/overflow_frequency.summary.txt");
  EXPECT_EQ(console, text + "latest_summary=" + (dir_ / "latest_summary.txt").string() +
                         "\nlatest_json=" + (dir_ / "latest.json").string() + "\n");
  EXPECT_EQ(read("latest_summary.txt"), text);
  for (const std::string at : {"run/overflow_frequency", "latest"}) {
    EXPECT_EQ(read(at + ".csv"), kCsvHead + kCsvRun + kCsvRun);
    EXPECT_EQ(read(at + ".json"), kJsonHead + kJsonRun + ",\n" + kJsonRun + "\n  ]\n}\n");
  }
  config_.channel_mask = 0;  // all count
  EXPECT_NE(format_summary({}, {}, {}, config_, two_runs(), true).find("  ch3 "), text.npos);
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

TEST_F(Reports, PublishedCopiesAreOfOneStart) {
  const std::string names = "abcd";
  for (const char name : names) write(std::string{name}.c_str(), std::string(1 << 18, name));
  for (int round = 0; round < 10; ++round) {
    std::vector<std::thread> starts;
    for (const char name : names) {
      starts.emplace_back([this, file = dir_ / std::string{name}, name] {
        publish_latest(dir_, file, file, std::string(1 << 18, name));  // an error ends the test
      });
    }
    for (std::thread& start : starts) start.join();
    const std::string summary = read("latest_summary.txt");
    EXPECT_EQ(summary.size(), 1U << 18);
    EXPECT_TRUE(read("latest.csv") == summary && read("latest.json") == summary) << round;
  }
}

// A script may hold a lock on the folder for as long as the tool runs. Without a limit this hangs.
TEST_F(Reports, ALockIsNotWaitedForWithoutEnd) {
  const DirectoryLock held(dir_);
  const auto before = std::chrono::steady_clock::now();
  const DirectoryLock given_up(dir_, std::chrono::milliseconds(30));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(30));
}

TEST_F(Reports, ASignalEndsTheWaitForALock) {
  const DirectoryLock held(dir_);
  const auto wait = [this] {
    const InterruptionWatch watch;
    std::raise(SIGTERM);
    try {
      const DirectoryLock never(dir_, std::chrono::seconds(20));
    } catch (const timing::Interrupted&) {
      std::exit(3);
    }
  };
  EXPECT_EXIT(wait(), testing::ExitedWithCode(3), "");
}

TEST_F(Reports, FailuresNameTheOutput) {
  const auto publish = [&](const fs::path& root) {
    return tests::error_of([&] { publish_latest(root, dir_ / "new", dir_ / "missing", ""); });
  };
  EXPECT_EQ(tests::error_of([&] { write_csv(dir_, {}); }),
            "could not open overflow CSV output [-2]");
  EXPECT_EQ(tests::error_of([&] { write_json_report(dir_, config_, {}, true); }),
            "could not open overflow JSON output [-2]");
  EXPECT_EQ(tests::error_of([&] { write_text_file(dir_, ""); }), "could not open text output [-2]");
  EXPECT_EQ(publish("/dev/null/x"),
            "could not create output root /dev/null/x: Not a directory [-2]");
  write("latest.json", "old");
  write("new", "new");
  EXPECT_EQ(publish(dir_), "could not publish " + (dir_ / "latest.json").string() +
                               ": No such file or directory [-2]");
  EXPECT_EQ(read("latest.csv"), "new");  // file by file, in this order
  EXPECT_FALSE(fs::exists(dir_ / "latest.json") || fs::exists(dir_ / "latest_summary.txt"));
}

}  // namespace
}  // namespace orvo::verification
