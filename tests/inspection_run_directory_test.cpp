// Run directories as the tool leaves them, and what else may be found in their place.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>

#include "orvo/inspection/run_directory.h"
#include "support/recordings.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using inspection::load_run;

struct RunDirectory : Ortime {
  RunDirectory() {
    add_run(100);
    save_report();
  }
  const std::string json = "overflow_frequency.json";
};

TEST_F(RunDirectory, IsRefusedWithADamagedReport) {
  const std::string report = read_file(json);
  const struct {
    std::string from, to, error;
  } cases[] = {
      {report, std::string(1'000'000, '['), ": parse error at line 1,"},
      {report, std::string((4 << 20) + 1, ' '), " is too large: more than 4 MiB"},
      {"\"overflow_f", "\"f", ": (/verification) is not overflow_frequency"},
      {":15,", ":256,", ": (/channel_mask) is not an integer from 0 to 255"},
      {":25.000,", ":infinite,", ": parse error at line 9,"},
      {"l\":3", "l\":2", ": (/runs/0/channels/3/channel) is not 3"},
      {"ps\":1000000000160", "ps\":9223372036854775808",
       ": (/runs/0/channels/0/first_ps) is not an integer from -9"},
      {"\"channels\":[", "\"channels\":[7],\"x\":[", ": (/runs/0/channels) has not 4 elements"},
      {"\"runs\":[", "\"runs\":[],\"x\":[", ": (/runs) is empty"},
      {scratch.file(recording(1)), "a\\u0000", ": (/runs/0/stream_file) is not a path"},
  };
  for (const auto& c : cases) {
    std::string damaged = report;
    ASSERT_TRUE(has(damaged, c.from)) << c.from;
    write_file(json, damaged.replace(damaged.find(c.from), c.from.size(), c.to));
    EXPECT_EQ(ortime("verify ."), 1);
    EXPECT_TRUE(err.starts_with("ortime: \"./overflow_frequency.json\"" + c.error)) << err;
  }
}

TEST_F(RunDirectory, LooksForRecordingsInTheDirectoryThatWasNamedFirst) {
  const std::string there = scratch.file("b\xE9 \xC3\xA9\"\\\n");  // no UTF-8
  const auto record_in = [&](const std::string& directory) {
    runs[0].stream_file = directory + "/c.ortime";
    save_report();
  };
  fs::rename(recording(1), "away");
  record_in(there);
  EXPECT_EQ(ortime("verify ."), 1);
  EXPECT_TRUE(has(err,
                  "ortime: run 1: recording \"c.ortime\" is missing: it is neither in \".\" nor "
                  "where it was recorded, \"./b\\xe9 é\\\"\\\\\\n\""))
      << err;
  fs::create_directories(there);
  fs::copy_file("away", there + "/c.ortime");
  EXPECT_EQ(ortime("verify ."), 0);
  EXPECT_EQ(err,
            "ortime: 1 of 1 recordings are not in \".\": read where they were recorded, "
            "\"./b\\xe9 é\\\"\\\\\\n\"\n");
  fs::copy_file("away", "c.ortime");
  for (const std::string& recorded : {there, scratch.file("b\x01")}) {  // which is told as "b?"
    record_in(recorded);
    EXPECT_EQ(ortime("verify ."), 0);
    EXPECT_TRUE(has(out, "\n  stream_file=\"./c.ortime\"\n")) << out;
    EXPECT_EQ(err, "");
  }
  record_in(there);
  fs::remove("c.ortime");
  fs::create_directory("c.ortime");
  EXPECT_EQ(ortime("verify ."), 0);
  EXPECT_TRUE(has(err, "read where they were recorded")) << err;
}

TEST_F(RunDirectory, IsTakenByEveryNameThatTheToolLeaves) {
  for (const char* const name : {"root/20261124_160312", "root/20261125_080000"}) {
    fs::create_directories(name);
    runs[0].stream_file = fs::absolute(name) / recording(1);
    fs::copy_file(recording(1), runs[0].stream_file);
    save_report(name);
  }
  fs::copy_file("root/20261125_080000/" + json, "root/latest.json");
  fs::create_directories("root/20261126_000000");  // nothing was recorded
  fs::create_directories("root/later_than_any");
  fs::create_directory_symlink("root/20261125_080000", "link");
  for (const std::string path : {"root", "root/20261125_080000", "root/latest.json", "link",
                                 "root/20261125_080000/overflow_frequency.json"}) {
    EXPECT_EQ(ortime("verify " + path), 0) << path;
    EXPECT_TRUE(has(out, "=\"./root/20261125_080000/overflow_frequency_01.ortime\"\n")) << out;
    EXPECT_EQ(err, path == "root" ? "ortime: newest run: \"./root/20261125_080000\"\n" : "");
  }
  EXPECT_EQ(ortime("verify root/20261126_000000"), 1);
  EXPECT_TRUE(has(err, "holds neither overflow_frequency.json nor a recording nor run directories"))
      << err;
  EXPECT_EQ(ortime("verify missing.json"), 1);
  EXPECT_EQ(err, "ortime: cannot open \"missing.json\": No such file or directory\n");
}

TEST_F(RunDirectory, WithoutAReportHasItsRecordings) {
  fs::create_directories("run/overflow_frequency_03.ortime");  // no file
  write_file("run/other.ortime", "");
  std::string expected;
  for (const std::string number : {"01", "02", "99", "100"}) {
    const std::string file = "run/overflow_frequency_" + number + ".ortime";
    write_file(file, "");
    expected += "ortime: \"./" + file + "\": truncated magic\n";
  }
  EXPECT_EQ(ortime("info run"), 1);
  EXPECT_EQ(err, expected);
}

TEST_F(RunDirectory, InfersWhatAReportDoesNotHoldFromItsVerdicts) {
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  using Channel = verification::ChannelResult;
  const auto channel = [](std::uint64_t count, double ppm, bool pass) {
    return Channel{count, 0, 0, 0, ppm, pass};
  };
  const struct {
    double reported_ppm;
    Channel first, second;
    std::uint64_t min_tags;
    double tolerance_ppm;
    std::string taken;
  } cases[] = {
      {25, channel(100, 3, true), channel(63, 3, false), 64, 25, ""},
      {25, channel(10, 3, true), channel(9, 3, false), 10, 25, " min_tags_per_channel=10"},
      {25, channel(10, 3, true), {}, 10, 25, " min_tags_per_channel=10"},  // as near as it can be
      {25, channel(100, 3, false), channel(200, 3, true), 101, 25, " min_tags_per_channel=101"},
      {4e-4, channel(100, 3.5e-4, true), {}, 64, 4.25e-4, " tolerance_ppm=0.000425"},
      {4e-4, channel(100, 3e-4, true), channel(100, 4.1e-4, false), 64, 3.55e-4,
       " tolerance_ppm=0.000355"},
      {kInfinite, channel(100, 1e6, true), channel(10, 0, false), 64, kInfinite, ""},
      {25, channel(100, 3, true), channel(100, 3, false), 64, 25, ""},  // nothing fits
  };
  for (const auto& c : cases) {
    config.tolerance_ppm = c.reported_ppm;
    runs[0].channels = {c.first, c.second};
    save_report();
    const verification::EvaluationSettings settings = load_run(".").settings;
    EXPECT_EQ(settings.min_tags_per_channel, c.min_tags) << c.taken;
    EXPECT_DOUBLE_EQ(settings.tolerance_ppm, c.tolerance_ppm) << c.taken;
    EXPECT_EQ(ortime("verify ."), 3);  // the recording has other numbers
    const std::string note =
        "ortime: taken from the verdicts of the report, which does not hold it:";
    EXPECT_EQ(err.substr(0, err.find("ortime: run 1")),
              c.taken.empty() ? "" : note + c.taken + '\n');
  }
}

}  // namespace
}  // namespace orvo::tests
