// Run directories as the tool leaves them, and what else may be found in their place.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "orvo/inspection/run_directory.h"
#include "orvo/verification/reports.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using inspection::load_run_directory;

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
  const inspection::RunDirectory read = load_run_directory(scratch.path());
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
      {report, "7", ": cannot use at() with number"},
      {report, std::string(100'000, '['), " is nested too deeply"},
      {report, std::string((16 << 20) + 1, ' '), " is too large: more than 16 MiB"},
      {"\"overflow_f", "\"f", ": (/verification) is not overflow_frequency"},
      {"\"pass\"", "\"fail\"", ": key 'pass' not found"},
      {":15,", ":256,", ": (/channel_mask) is not an integer from 0 to 255"},
      {":25.000,", ":inf,", ": parse error at line 9,"},
      {":1000,", ":4294967296,", ": (/runs/0/divider) is not an integer from 0 to 4294967295"},
      {"required\":true", "required\":1",
       ": (/runs/0/overflow_required) type must be boolean, but is number"},
      {"l\":3", "l\":2", ": (/runs/0/channels/3/channel) is not 3"},
      {"count\":0", "count\":-1", ": (/runs/0/channels/1/count) is not an integer from 0 to 1844"},
      {"ps\":1000", "ps\":9223372036854775808",
       ": (/runs/0/channels/0/first_ps) is not an integer from -9"},
      {"\"channels\":[", "\"channels\":[7],\"x\":[", ": (/runs/0/channels) has not 4 elements"},
      {"\"runs\":[", "\"runs\":{},\"x\":[", ": (/runs) "},
      {"\"runs\":[", "\"runs\":[],\"x\":[", ": (/runs) is empty"},
      {file, "a\\u0000", ": (/runs/0/stream_file) is not a path"},
  };
  for (const auto& c : cases) {
    std::string damaged = report;
    ASSERT_NE(damaged.find(c.from), std::string::npos) << c.from;
    write_file(json, damaged.replace(damaged.find(c.from), c.from.size(), c.to));
    const std::string error = error_of([&] { (void)load_run_directory(scratch.path()); });
    EXPECT_EQ(error.substr(0, (json + c.error).size()), json + c.error);
    EXPECT_TRUE(error.ends_with("[-4]")) << error;
  }
}

TEST_F(RunDirectory, FindsAStreamFileThatHasMoved) {
  const fs::path there = scratch.path() / "b\xE9 \xC3\xA9\"\\\n" / "c.ortime";  // no UTF-8
  const fs::path here = scratch.path() / "c.ortime";
  const auto found = [&](const fs::path& recorded) {
    run.stream_file = recorded;
    verification::write_json_report(json, {}, {run}, false);
    return load_run_directory(scratch.path()).runs.at(0).stream_file;
  };
  EXPECT_EQ(found(there), there);  // for want of another
  fs::copy_file(file, here);
  EXPECT_EQ(found(there), here);
  EXPECT_EQ(found(scratch.path() / "b\x01" / "c.ortime"), here);  // recorded as "b?"
  fs::create_directories(there.parent_path());
  fs::copy_file(file, there);
  EXPECT_EQ(found(there), there);
}

}  // namespace
}  // namespace orvo::tests
