// Run directories as the tool leaves them, and what else may be found in their place.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "orvo/inspection/run_directory.h"
#include "orvo/verification/reports.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using inspection::load_run;

struct RunDirectory : testing::Test {
  RunDirectory() {
    run.requested_hz = 30978.25;
    run.divider = 1000;
    run.stream_file = file;
    run.overflow_required = true;
    run.channels[0] = {100, 1000, 3195471000, 30981.359013, 0.0625, true};
    write_file(file, "");
    verification::write_json_report(json, {}, {run}, false);
  }

  ScratchDirectory scratch;
  const std::string file = scratch.file("a.ortime");
  const std::string json = scratch.file("overflow_frequency.json");
  verification::RunResult run;
  std::string said, missing;
};

TEST_F(RunDirectory, HasWhatTheToolWrote) {
  verification::Config config;
  config.packed_quantum_ps = 65535;
  config.tolerance_ppm = -0.5;
  verification::RunResult extreme = run;
  extreme.divider = 4294967295;
  extreme.channels[3] = {UINT64_MAX, INT64_MIN, INT64_MAX, 4194303.9999999991, -4e-7, true};
  verification::write_json_report(json, config, {run, extreme}, true);
  const std::string written = read_file(json);
  const inspection::RunDirectory read = load_run(scratch.path());
  EXPECT_EQ(read.capture_s, 0.35);
  EXPECT_EQ(read.settings.packed_bits, 16);
  EXPECT_EQ(read.settings.packed_quantum_ps, 65535);
  EXPECT_EQ(read.settings.tolerance_ppm, -0.5);
  verification::write_json_report(json, config, read.runs, read.pass);
  EXPECT_EQ(read_file(json), written);
}

TEST_F(RunDirectory, IsRefusedWithADamagedReport) {
  const std::string report = read_file(json);
  const struct {
    std::string from, to, error;
  } cases[] = {
      {report, "", ": parse error at line 1,"},
      {report, std::string(1'000'000, '['), ": parse error at line 1,"},
      {report, std::string((4 << 20) + 1, ' '), " is too large: more than 4 MiB"},
      {"\"overflow_f", "\"f", ": (/verification) is not overflow_frequency"},
      {":15,", ":256,", ": (/channel_mask) is not an integer from 0 to 255"},
      {":25.000,", ":infinite,", ": parse error at line 9,"},
      {"l\":3", "l\":2", ": (/runs/0/channels/3/channel) is not 3"},
      {"count\":0", "count\":-1", ": (/runs/0/channels/1/count) is not an integer from 0 to 1844"},
      {"ps\":1000", "ps\":9223372036854775808",
       ": (/runs/0/channels/0/first_ps) is not an integer from -9"},
      {"\"channels\":[", "\"channels\":[7],\"x\":[", ": (/runs/0/channels) has not 4 elements"},
      {"\"runs\":[", "\"runs\":[],\"x\":[", ": (/runs) is empty"},
      {file, "a\\u0000", ": (/runs/0/stream_file) is not a path"},
  };
  for (const auto& c : cases) {
    std::string damaged = report;
    ASSERT_NE(damaged.find(c.from), std::string::npos) << c.from;
    write_file(json, damaged.replace(damaged.find(c.from), c.from.size(), c.to));
    const std::string error = error_of([&] { (void)load_run(scratch.path()); });
    EXPECT_TRUE(error.starts_with('"' + json + '"' + c.error)) << error;
    EXPECT_TRUE(error.ends_with("[-4]")) << error;
  }
}

TEST_F(RunDirectory, LooksForRecordingsInTheDirectoryThatWasNamedFirst) {
  const fs::path there = scratch.path() / "b\xE9 \xC3\xA9\"\\\n" / "c.ortime";  // no UTF-8
  const fs::path here = scratch.path() / "c.ortime";
  const auto found = [&](const fs::path& recorded) {
    run.stream_file = recorded;
    verification::write_json_report(json, {}, {run}, false);
    testing::internal::CaptureStderr();
    const inspection::RunDirectory dir = load_run(scratch.path());
    said = testing::internal::GetCapturedStderr();
    missing = error_of([&] { require_recording(dir, dir.runs.at(0)); });
    return dir.runs.at(0).stream_file;
  };
  EXPECT_EQ(found(there), there);
  EXPECT_EQ(said, "");
  EXPECT_TRUE(missing.starts_with("recording \"c.ortime\" is missing: it is neither in \"" +
                                  scratch.path().string() + "\" nor where it was recorded, "))
      << missing;
  fs::create_directories(there.parent_path());
  fs::copy_file(file, there);
  EXPECT_EQ(found(there), there);
  EXPECT_TRUE(said.starts_with("ortime: 1 of 1 recordings are not in \"")) << said;
  EXPECT_NE(said.find("/b\\xe9 é\\\"\\\\\\n\""), std::string::npos) << said;
  EXPECT_EQ(missing, "no error");
  fs::copy_file(file, here);
  EXPECT_EQ(found(there), here);
  EXPECT_EQ(found(scratch.path() / "b\x01" / "c.ortime"), here);  // recorded as "b?"
  EXPECT_EQ(said, "");
  fs::remove(here);
  fs::create_directory(here);
  EXPECT_EQ(found(there), there);
}

TEST_F(RunDirectory, IsTakenByEveryNameThatTheToolLeaves) {
  const fs::path root = scratch.path() / "root";
  for (const char* const name : {"20261124_160312", "20261125_080000"}) {
    fs::create_directories(root / name);
    run.stream_file = root / name / "overflow_frequency_01.ortime";
    write_file(run.stream_file, "");
    verification::write_json_report(root / name / "overflow_frequency.json", {}, {run}, false);
  }
  const fs::path newest = root / "20261125_080000";
  fs::copy_file(newest / "overflow_frequency.json", root / "latest.json");
  fs::create_directories(root / "20261126_000000");  // nothing was recorded
  fs::create_directories(root / "later_than_any");
  fs::create_directory_symlink(newest, scratch.path() / "link");
  for (const fs::path& path : {newest, newest / "overflow_frequency.json", root / "latest.json",
                               root, scratch.path() / "link"}) {
    testing::internal::CaptureStderr();
    const inspection::RunDirectory dir = load_run(path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              path == root ? "ortime: newest run: \"" + newest.string() + "\"\n" : "");
    EXPECT_EQ(dir.path, newest) << path;
    EXPECT_EQ(dir.runs.at(0).stream_file, newest / "overflow_frequency_01.ortime") << path;
    EXPECT_TRUE(dir.ended());
  }
  EXPECT_NE(error_of([&] {
              (void)load_run(root / "20261126_000000");
            }).find("holds neither overflow_frequency.json nor a recording nor run directories"),
            std::string::npos);
  EXPECT_EQ(error_of([&] { (void)load_run(root / "missing"); }),
            "cannot open \"" + (root / "missing").string() + "\": No such file or directory [-2]");
}

TEST_F(RunDirectory, WithoutAReportHasItsRecordings) {
  const fs::path dir = scratch.path() / "run";
  fs::create_directories(dir / "overflow_frequency_03.ortime");  // no file
  for (const char* const number : {"100", "99", "02", "01"}) {
    write_file(dir / ("overflow_frequency_" + std::string(number) + ".ortime"), "");
  }
  write_file(dir / "other.ortime", "");
  const inspection::RunDirectory read = load_run(dir);
  EXPECT_FALSE(read.ended());
  std::string names;
  for (const verification::RunResult& left : read.runs) {
    names += left.stream_file.filename().string() + '\n';
  }
  EXPECT_EQ(names,
            "overflow_frequency_01.ortime\noverflow_frequency_02.ortime\n"
            "overflow_frequency_99.ortime\noverflow_frequency_100.ortime\n");
}

TEST_F(RunDirectory, InfersWhatAReportDoesNotHoldFromItsVerdicts) {
  constexpr double kInfinite = std::numeric_limits<double>::infinity();
  using Channels = std::vector<verification::ChannelResult>;
  const auto passed = [](std::uint64_t count, double ppm) {
    return verification::ChannelResult{count, 0, 0, 0, ppm, true};
  };
  const auto failed = [](std::uint64_t count, double ppm) {
    return verification::ChannelResult{count, 0, 0, 0, ppm, false};
  };
  const struct {
    const char* what;
    double tolerance_ppm;
    Channels channels;
    std::uint64_t min_tags;
    double least_ppm, most_ppm;
    bool noted;
  } cases[] = {
      {"the usual", 25, {passed(100, 3), failed(63, 3)}, 64, 25, 25, false},
      {"lower", 25, {passed(10, 3), failed(9, 3)}, 10, 25, 25, true},
      {"as near as it can be", 25, {passed(10, 3)}, 10, 25, 25, true},
      {"higher", 25, {failed(100, 3), passed(200, 3)}, 101, 25, 25, true},
      {"0.0004", 0.0004, {passed(100, 3.5e-4)}, 64, 3.5e-4, 5e-4, true},
      {"between", 0.0004, {passed(100, 3e-4), failed(100, 4.1e-4)}, 64, 3e-4, 4.09e-4, true},
      {"infinite", kInfinite, {passed(100, 1e6), failed(10, 0)}, 64, kInfinite, kInfinite, false},
      {"nothing fits", 25, {passed(100, 3), failed(100, 3)}, 64, 25, 25, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    verification::Config config;
    config.tolerance_ppm = c.tolerance_ppm;
    run.channels = {};
    std::copy(c.channels.begin(), c.channels.end(), run.channels.begin());
    verification::write_json_report(json, config, {run}, false);
    const inspection::RunDirectory read = load_run(scratch.path());
    EXPECT_EQ(read.settings.min_tags_per_channel, c.min_tags);
    EXPECT_GE(read.settings.tolerance_ppm, c.least_ppm);
    EXPECT_LE(read.settings.tolerance_ppm, c.most_ppm);
    EXPECT_EQ(read.settings_note.empty(), !c.noted) << read.settings_note;
  }
}

}  // namespace
}  // namespace orvo::tests
