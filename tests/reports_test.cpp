#include "orvo/verification/reports.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "orvo/timing/error.h"
#include "orvo/verification/directory_lock.h"
#include "orvo/verification/interruption.h"
#include "support/scratch.h"

namespace orvo::verification {
namespace {

namespace fs = std::filesystem;

class Reports : public testing::Test {
 protected:
  [[nodiscard]] std::string read(const std::string& name) const {
    return tests::read_file(scratch_.file(name));
  }
  void write(const std::string& name, const std::string& text) const {
    tests::write_file(scratch_.file(name), text);
  }

  const tests::ScratchDirectory scratch_;
  const fs::path dir_ = scratch_.path();
};

TEST_F(Reports, TheSummaryAloneIsPublishedThroughALink) {
  write("new", "new");
  for (const char* const name : {"latest.csv", "latest.json", "latest_summary.txt"}) {
    fs::create_symlink(dir_ / "kept", dir_ / name);
  }
  publish_latest(dir_, dir_ / "new", dir_ / "new", "summary");
  EXPECT_EQ(read("latest.csv") + read("latest.json") + read("kept"), "newnewsummary");
}

TEST_F(Reports, PublishedCopiesAreOfOneStart) {
  for (const char name : {'a', 'b', 'c', 'd'}) write({name}, std::string(1 << 18, name));
  for (int round = 0; round < 10; ++round) {
    std::vector<std::thread> starts;
    for (const char name : {'a', 'b', 'c', 'd'}) {
      starts.emplace_back([file = scratch_.file({&name, 1}), this] {
        publish_latest(dir_, file, file, tests::read_file(file));  // an error ends the test
      });
    }
    for (std::thread& start : starts) start.join();
    const std::string summary = read("latest_summary.txt");
    EXPECT_EQ(summary.size(), 1U << 18);
    EXPECT_TRUE(read("latest.csv") == summary && read("latest.json") == summary) << round;
  }
}

// A script may hold a lock on the folder for as long as the tool runs.
TEST_F(Reports, AWaitForALockEndsByItsLimitOrASignal) {
  const DirectoryLock held(dir_);
  const auto before = std::chrono::steady_clock::now();
  const DirectoryLock given_up(dir_, std::chrono::milliseconds(30));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(30));
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

// Wherever the disk is full, no part of a report is published.
TEST_F(Reports, ArePublishedWholeOrAreAnError) {
  const std::string text(64, 'x'), publish = "could not publish " + dir_.string() + "/";
  const struct {
    std::string csv, json, summary, missing, error;
  } cases[] = {
      {text, "s", "s", "latest.csv", publish + "latest.csv: File too large [-2]"},
      {"s", text, "s", "latest.json", publish + "latest.json: File too large [-2]"},
      {"s", "s", text, "latest_summary.txt", "could not write text output [-2]"},
  };
  for (const auto& c : cases) {
    write("csv", c.csv);
    write("json", c.json);
    for (std::size_t size = 1; size <= text.size(); ++size) {
      const bool fits = size == text.size();
      const tests::FileSizeLimit limit(size);
      ASSERT_EQ(
          tests::error_of([&] { publish_latest(dir_, dir_ / "csv", dir_ / "json", c.summary); }),
          fits ? "no error" : c.error);
      ASSERT_EQ(read(c.missing), fits ? text : "") << c.missing << size;
      ASSERT_EQ(fs::exists(dir_ / c.missing), fits);
    }
  }
}

TEST_F(Reports, FailuresNameTheOutput) {
  const struct {
    std::string obstacle, error;
  } cases[] = {
      {"run/overflow_frequency.csv/x", "could not open overflow CSV output [-2]"},
      {"run/overflow_frequency.json/x", "could not open overflow JSON output [-2]"},
      {"run/overflow_frequency.summary.txt/x", "could not open text output [-2]"},
      {"root/latest_summary.txt/x", "could not open text output [-2]"},
      {"root/latest.json/x",
       "could not publish " + (dir_ / "root/latest.json").string() + ": Invalid argument [-2]"},
  };
  for (const auto& [obstacle, error] : cases) {
    fs::create_directories(dir_ / "run");
    fs::create_directories(dir_ / obstacle);
    EXPECT_EQ(tests::error_of([&] { write_reports(dir_ / "root", dir_ / "run", {}, {}, true); }),
              error);
    EXPECT_EQ(fs::exists(dir_ / "root/latest.csv"), obstacle.starts_with("root")) << obstacle;
    fs::remove_all(dir_ / "run");
    fs::remove_all(dir_ / "root");
  }
  EXPECT_EQ(tests::error_of([&] { publish_latest("/dev/null/x", dir_, dir_, ""); }),
            "could not create output root /dev/null/x: Not a directory [-2]");
}

}  // namespace
}  // namespace orvo::verification
