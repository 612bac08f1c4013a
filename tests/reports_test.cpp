#include "orvo/verification/reports.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
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

// Wherever the disk is full, a part of a report is an error, and no part of one is published.
TEST_F(Reports, AreWholeOrAnError) {
  const std::string text(64, 'x'), publish = "could not publish " + dir_.string() + "/";
  write("small", "s");
  write("large", text);
  const struct {
    std::string file, error;
    std::function<void()> write;
  } cases[] = {
      {"csv", "could not write overflow CSV output", [&] { write_csv(dir_ / "csv", {{}}); }},
      {"json", "could not write overflow JSON output",
       [&] { write_json_report(dir_ / "json", {}, {{}}, true); }},
      {"text", "could not write text output", [&] { write_text_file(dir_ / "text", text); }},
      {"latest.csv", publish + "latest.csv: File too large",
       [&] { publish_latest(dir_, dir_ / "large", dir_ / "small", "s"); }},
      {"latest.json", publish + "latest.json: File too large",
       [&] { publish_latest(dir_, dir_ / "small", dir_ / "large", "s"); }},
      {"latest_summary.txt", "could not write text output",
       [&] { publish_latest(dir_, dir_ / "small", dir_ / "small", text); }},
  };
  for (const auto& c : cases) {
    c.write();
    const std::string whole = read(c.file);
    ASSERT_GE(whole.size(), text.size());
    for (std::size_t size = 1; size <= whole.size(); ++size) {
      const bool fits = size == whole.size(), stays = fits || !c.file.starts_with("latest");
      const tests::FileSizeLimit limit(size);
      ASSERT_EQ(tests::error_of(c.write), fits ? "no error" : c.error + " [-2]") << size;
      ASSERT_EQ(fs::exists(dir_ / c.file), stays) << c.file << size;
      ASSERT_EQ(read(c.file), stays ? whole.substr(0, size) : "");
    }
  }
}

TEST_F(Reports, FailuresNameTheOutput) {
  const auto publish = [&](const fs::path& root) {
    return tests::error_of([&] { publish_latest(root, dir_ / "new", dir_ / "missing", ""); });
  };
  EXPECT_EQ(tests::error_of([&] { write_csv(dir_, {}); }),
            "could not open overflow CSV output [-2]");
  EXPECT_EQ(tests::error_of([&] { write_json_report(dir_, {}, {}, true); }),
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
