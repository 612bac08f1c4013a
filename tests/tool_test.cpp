// The real tool on the simulated instrument: console, statuses, files, and calls of the driver.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/expected_reports.h"
#include "support/scratch.h"
#include "support/tool_runner.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using verification::Config;

// 20 ms of instrument time, which the first reads get at once: the same bytes in every run.
constexpr const char* kSim = "ORVO_SIM=pace=ps:20000000000;ledger=ledger;";
constexpr const char* kFileName = "ot_verify_overflow_frequency.ini";

class Tool : public testing::Test {
 protected:
  Tool() {
    write_file(file(kFileName),
               "output_root = out  # in the working directory\n"
               "capture_s = 0.05\nfrequencies_hz = 10000\ntolerance_ppm = 10\n");
  }

  [[nodiscard]] ToolResult run(const std::string& sim, Texts arguments = {},
                               Texts environment = {}) const {
    environment.push_back(kSim + sim);
    return run_tool(dir_.path(), {std::move(arguments), std::move(environment)});
  }

  [[nodiscard]] std::string file(const std::string& name) const { return dir_.file(name); }
  [[nodiscard]] std::string ledger() const { return read_file(file("ledger")); }
  [[nodiscard]] fs::path root() const { return fs::canonical(dir_.path()) / "out"; }

 private:
  ScratchDirectory dir_;
};

/// Count and verdict of each channel that the summary shows, such as "201+ 200- ".
std::string channels_in(const std::string& summary) {
  std::istringstream stream(lines_with(summary, "  ch"));
  std::string text;
  for (std::string line; std::getline(stream, line);) {
    const std::size_t count = line.find('=') + 1;
    text += line.substr(count, line.find(' ', count) - count);
    text += line.ends_with(" pass=true") ? "+ " : "- ";
  }
  return text;
}

Texts arguments_of(const Config& config) {
  std::string list;
  for (const double hz : config.frequencies_hz) list += std::to_string(hz) + ',';
  return {"--frequencies-hz=" + list,
          "--capture-s=" + std::to_string(config.capture_s),
          "--packed-bits=" + std::to_string(config.packed_bits),
          "--packed-quantum-ps=" + std::to_string(config.packed_quantum_ps),
          "--channel-mask=" + std::to_string(config.channel_mask),
          "--tolerance-ppm=" + std::to_string(config.tolerance_ppm)};
}

std::string announcements(const std::vector<double>& frequencies_hz) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(3);
  for (std::size_t i = 0; i < frequencies_hz.size(); ++i) {
    text << "Capture " << i + 1 << '/' << frequencies_hz.size() << ": requested "
         << frequencies_hz[i] << " Hz/channel\n";
  }
  return text.str();
}

TEST_F(Tool, PrintsAndWritesAllOfItsResults) {
  const struct {
    std::vector<double> frequencies_hz;
    std::uint8_t packed_bits;
    std::uint8_t channel_mask;
    const char* sim;
    bool pass;
  } cases[] = {
      {{1e4, 2e6}, 16, 15, "", true},
      {{1e4, 1e3, 20000.0625}, 16, 15, "", false},  // the second has too few tags
      {{1e4}, 24, 5, "silent=3", true},
      {{1e4}, 31, 0, "rate_error_ppm=2:40", false},
  };
  for (const auto& c : cases) {
    Config config;
    config.capture_s = 0.0625;
    config.frequencies_hz = c.frequencies_hz;
    config.channel_mask = c.channel_mask;
    config.packed_bits = c.packed_bits;
    config.packed_quantum_ps = 16;
    config.tolerance_ppm = 39.5;
    SCOPED_TRACE(testing::PrintToString(arguments_of(config)));
    fs::remove_all(root());
    const ToolResult result = run(c.sim, arguments_of(config));
    EXPECT_EQ(result.status, c.pass ? 0 : 2);
    EXPECT_EQ(result.err, "");
    const fs::path run_dir = run_dir_of(result);
    ASSERT_EQ(run_dir.parent_path(), root());
    const ExpectedReports expected = expected_reports(config, run_dir);
    EXPECT_EQ(expected.pass, c.pass);
    EXPECT_EQ(result.out, "Config: " + (root().parent_path() / kFileName).string() +
                              "\nOutput: " + run_dir.string() +
                              "\nDevice: Orvo timing instrument, simulated, SIM1001\n" +
                              announcements(config.frequencies_hz) + expected.summary +
                              "latest_summary=" + (root() / "latest_summary.txt").string() +
                              "\nlatest_json=" + (root() / "latest.json").string() + "\n");
    const fs::path stem = run_dir / "overflow_frequency";
    EXPECT_EQ(read_file(stem.string() + ".csv"), expected.csv);
    EXPECT_EQ(read_file(stem.string() + ".json"), expected.json);
    EXPECT_EQ(read_file(stem.string() + ".summary.txt"), expected.summary);
    EXPECT_EQ(read_file(root() / "latest.csv"), expected.csv);
    EXPECT_EQ(read_file(root() / "latest.json"), expected.json);
    EXPECT_EQ(read_file(root() / "latest_summary.txt"), expected.summary);
  }
}

TEST_F(Tool, JudgesEachChannel) {
  const char* const all = "201+ 201+ 201+ 201+ ";
  const struct {
    const char* sim;
    Texts arguments;
    int status;
    const char* channels;
  } cases[] = {
      {"", {}, 0, all},
      {"rate_error_ppm=2:40", {"--tolerance-ppm=25"}, 2, "201+ 201+ 201- 201+ "},
      {"rate_error_ppm=2:-24.9", {"--tolerance-ppm=25"}, 0, all},
      {"silent=1", {}, 2, "0- 0- 0- 0- "},
      {"silent=1,3", {"--channel-mask=5"}, 0, "201+ 201+ "},
      {"lose=1:1@100", {}, 2, "201+ 200- 201+ 201+ "},
      {"lose=1:3@100,3:7@150", {"--channel-mask=0xFB"}, 2, "201+ 198- 194- "},
      {"", {"--min-tags-per-channel=202"}, 2, "201- 201- 201- 201- "},
      {"noise_bytes=1000", {}, 0, all},
      {"clock_ps=14315125000000", {}, 0, all},  // its clock wraps on the way
      {"", {"--packed-bits=8"}, 0, all},
      {"", {"--packed-bits=31"}, 0, all},
      {"", {"--chunk-bytes=0", "--queue-chunks=0"}, 0, all},
      {"fail=ot_read_stream_bytes:1:-3;fail=ot_read_stream_bytes:2:0", {}, 0, all},
      {"fail=ot_read_stream_bytes:1:-3:effect", {}, 2, "0- 0- 0- 0- "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sim + testing::PrintToString(c.arguments));
    const ToolResult result = run(c.sim, c.arguments);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(channels_in(result.out), c.channels);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(lines_with(ledger(), "misuse") + lines_with(ledger(), "end"), "end misuses=0\n");
  }
}

TEST_F(Tool, HandsItsSettingsToTheDriver) {
  const ToolResult result =
      run("", {"--channel-mask=0x15", "--tdl-index=300", "--packed-bits=24", "--chunk-bytes=100",
               "--packed-quantum-ps=0x10", "--frequencies-hz=12345.5"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(lines_with(ledger(), "ot_set_") + lines_with(ledger(), "ot_start_"),
            "ot_set_calibration_freq k=1 thread=1 freq_hz=12345.500000 status=0\n"
            "ot_set_stream_channel_mask k=1 thread=1 mask=5 status=0\n"
            "ot_set_packed_delta_config k=1 thread=1 bits=24 quantum_ps=16 status=0\n"
            "ot_set_stream_interface k=1 thread=1 transport=1 format=2 status=0\n"
            "ot_set_calibration_freq k=2 thread=1 freq_hz=12345.500000 status=0\n"
            "ot_start_stream_mode k=1 thread=1 mode=0 tdl_index=44 status=0\n");
  const std::regex reads("(ot_read_stream_bytes .* capacity=4096 timeout_ms=20 .*\n)+");
  EXPECT_TRUE(std::regex_match(lines_with(ledger(), "ot_read_"), reads)) << ledger();
  EXPECT_EQ(lines_with(ledger(), "ot_stop_"),
            "ot_stop_stream_mode k=1 thread=1 stop_flag=1 status=0\n");
}

TEST_F(Tool, EndsBeforeAnythingIsTouched) {
  const std::string usage = run("", {"--help"}).out;
  EXPECT_TRUE(usage.starts_with("ot_verify_overflow_frequency\n\nVerify packed-delta")) << usage;
  EXPECT_EQ(usage.size(), 553U);
  const char* const invalid = "invalid overflow_frequency configuration\n";
  const struct {
    Texts arguments;
    int status;
    std::string out;
    const char* err;
  } cases[] = {
      {{"--capture-s=fast", "--help"}, 0, usage, ""},
      {{"/?", "--capture-s=0"}, 0, usage, ""},
      {{"capture_s=nan"}, 64, "", invalid},
      {{"--packed-quantum-ps=0x10000", "--HELP", "--help=1"}, 64, "", invalid},
      {{"--packed-bits=0", "--channel-mask=all"}, 1, "", "stoul\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    const ToolResult result = run("", c.arguments);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err);
    EXPECT_EQ(names_in(root().parent_path()), std::string(kFileName) + ' ');
  }
}

TEST_F(Tool, ReadsTheFirstConfigurationFile) {
  const fs::path here = root().parent_path();
  fs::create_directories(here / "bin");
  write_file(file(std::string("bin/") + kFileName), "");
  const auto config_of = [&](const char* program) {
    const ToolResult result =
        run_tool(here, {{"--output-root=out"}, {"ORVO_SIM=instruments=0"}, program});
    return lines_with(result.out, "Config: ");
  };
  const std::string own = "Config: " + (here / kFileName).string() + '\n';
  EXPECT_EQ(config_of("bin/tool"), "Config: " + (here / "bin" / kFileName).string() + '\n');
  EXPECT_EQ(config_of("tool"), own);
  EXPECT_EQ(config_of("elsewhere/tool"), own);
  fs::remove(file(kFileName));
  EXPECT_TRUE(config_of("tool").ends_with(std::string("/verification/") + kFileName + '\n'));
}

TEST_F(Tool, ChoosesTheInstrument) {
  const struct {
    Texts arguments;
    Texts environment;
    const char* serial;
    bool discovers;
  } cases[] = {
      {{}, {}, "SIM1001", true},
      {{}, {"ORVO_TIMING_PORT="}, "SIM1001", true},
      {{}, {"ORVO_TIMING_PORT=sim:1"}, "SIM1002", false},
      {{"--control-port=sim:2"}, {"ORVO_TIMING_PORT=sim:1"}, "SIM1003", false},
      {{"--usb-serial=SIM1003"}, {"ORVO_TIMING_USB_SERIAL=SIM1002"}, "SIM1003", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments) + testing::PrintToString(c.environment));
    const ToolResult result =
        run("instruments=3;fail=ot_set_calibration_freq:1:-2", c.arguments, c.environment);
    EXPECT_EQ(lines_with(result.out, "Device: "),
              std::string("Device: Orvo timing instrument, simulated, ") + c.serial + '\n');
    EXPECT_EQ(!lines_with(ledger(), "ot_discover").empty(), c.discovers);
  }
}

TEST_F(Tool, NamesTheInstrumentItCannotOpen) {
  const struct {
    const char* sim;
    Texts arguments;
    const char* err;
  } cases[] = {
      {"instruments=0", {}, "open_first: no ORVO device found\n"},
      {"", {"--usb-serial=X"}, "open_first: no ORVO device found\n"},
      {"", {"--control-port=/dev/x"}, "open: not found\n"},
      {"fail=ot_open_serial:1:1:detail=lost", {}, "open: busy\n"},
      {"fail=ot_discover:1:-2:detail=lost", {}, "discover: input/output failure\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    const ToolResult result = run(c.sim, c.arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, c.err);
    EXPECT_TRUE(result.out.ends_with("\nOutput: " + run_dir_of(result).string() + '\n'));
    EXPECT_EQ(names_in(run_dir_of(result)), "");
    EXPECT_EQ(lines_with(ledger(), "ot_close"), "");
    EXPECT_TRUE(ledger().ends_with("\nend misuses=0\n")) << ledger();
  }
}

TEST_F(Tool, NamesTheCallThatFails) {
  const std::string first = "overflow_frequency_01.ortime ";
  const std::string second = "overflow_frequency_02.ortime ";
  const struct {
    const char* call;
    const char* label;
    std::string files;  // left in the run's directory
    const char* stops;  // flags of the calls that stop a stream
  } cases[] = {
      {"ot_identify:1", "identify", "", ""},
      {"ot_set_calibration_freq:1", "set_calibration_freq", "", ""},
      {"ot_set_calibration_freq:2", "set_calibration_freq", "", ""},
      {"ot_set_stream_channel_mask:1", "set_stream_channels", "", ""},
      {"ot_set_packed_delta_config:1", "set_packed_delta_config", "", ""},
      {"ot_set_stream_interface:1", "set_stream_interface", "", ""},
      {"ot_start_stream_mode:1", "start_stream(mode)", first, ""},
      {"ot_start_stream_mode:2", "start_stream(mode)", first + second, "1"},
      {"ot_read_stream_bytes:2", "read_stream_bytes", first, "0"},
      {"ot_stop_stream_mode:1", "stop_stream_any", first, "10"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    fs::remove_all(root());
    const ToolResult result = run(std::string("fail=") + c.call + ":-2:detail=lost;fail=" +
                                      "ot_stop_stream_mode:2:-1:detail=hidden",
                                  {"--frequencies-hz=10000,20000"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, std::string(c.label) + ": input/output failure (lost)\n");
    const fs::path run_dir = run_dir_of(result);
    EXPECT_EQ(names_in(root()), run_dir.filename().string() + ' ');
    EXPECT_EQ(names_in(run_dir), c.files);
    // The unfinished line tells what the tool was at.
    EXPECT_EQ(result.out.ends_with("\nDevice: "), std::string("identify") == c.label);

    std::string stops;
    std::istringstream lines(lines_with(ledger(), "ot_stop_stream_mode"));
    for (std::string line; std::getline(lines, line);) stops += line[line.find("flag=") + 5];
    EXPECT_EQ(stops, c.stops);
    EXPECT_EQ(lines_with(ledger(), "ot_close"), "ot_close k=1 thread=1 status=0\n");
    EXPECT_TRUE(ledger().ends_with("\nend misuses=0\n")) << ledger();
  }
}

TEST_F(Tool, TellsOfALostLockOnlyWhenAsked) {
  const Texts arguments = {"--frequencies-hz=100000", "--chunk-bytes=10000", "--capture-s=0.1"};
  const std::regex lines(
      "packed-decoder: locked .*\npacked-decoder: drop .*\npacked-decoder: locked .*\n");
  for (const bool asked : {false, true}) {
    const ToolResult result =
        run("damage=flip@20001", arguments, asked ? Texts{"ORVO_PACKED_DEBUG=1"} : Texts{});
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(asked ? std::regex_match(result.err, lines) : result.err.empty()) << result.err;
  }
}

TEST_F(Tool, JudgesARecordingByItsOwnWidth) {
  const ToolResult recorded = run("", {"--packed-bits=24", "--packed-quantum-ps=16"});
  const std::string recording = (run_dir_of(recorded) / "overflow_frequency_01.ortime").string();
  fs::rename(recording, file("recording"));
  fs::remove_all(root());
  const ToolResult result = run("replay=recording", {"--packed-bits=8"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(lines_with(result.out, "  ch"), lines_with(recorded.out, "  ch"));
  EXPECT_EQ(lines_with(result.out, "packed_bits="), "packed_bits=8\n");
}

TEST_F(Tool, ReplacesEarlierResultsFileByFile) {
  EXPECT_EQ(run("").status, 0);
  const std::string old_summary = read_file(root() / "latest_summary.txt");
  const ToolResult later = run("", {"--packed-bits=24"});
  EXPECT_EQ(later.status, 0);
  const std::string summary = read_file(root() / "latest_summary.txt");
  EXPECT_EQ(summary, read_file(run_dir_of(later) / "overflow_frequency.summary.txt"));
  EXPECT_NE(summary, old_summary);

  fs::remove(root() / "latest.json");
  fs::create_directories(root() / "latest.json" / "content");
  const ToolResult blocked = run("", {"--packed-bits=8"});
  EXPECT_EQ(blocked.status, 1);
  const std::string err = "could not publish " + (root() / "latest.json").string() + ": ";
  EXPECT_TRUE(blocked.err.starts_with(err)) << blocked.err;
  EXPECT_TRUE(blocked.out.ends_with("Capture 1/1: requested 10000.000 Hz/channel\n"));
  EXPECT_EQ(read_file(root() / "latest.csv"),
            read_file(run_dir_of(blocked) / "overflow_frequency.csv"));
  EXPECT_EQ(read_file(root() / "latest_summary.txt"), summary);
  EXPECT_TRUE(ledger().ends_with("ot_close k=1 thread=1 status=0\nend misuses=0\n")) << ledger();
}

TEST_F(Tool, NeedsAFolderForResults) {
  write_file(root().string(), "a file");
  const ToolResult result = run("");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find(root().string()), std::string::npos) << result.err;
  EXPECT_EQ(read_file(root()), "a file");
}

TEST_F(Tool, EndsTheCaptureWhenTheDiskIsFull) {
  ToolCall call;
  // The capture would take a minute; the writer meets the end of the disk in its first megabytes.
  call.arguments = {"--capture-s=60", "--frequencies-hz=2000000", "--chunk-bytes=4096",
                    "--queue-chunks=2"};
  call.environment = {"ORVO_SIM=pace=bytes:8000000;ledger=ledger"};
  call.max_file_bytes = 1'500'000;
  const ToolResult result = run_tool(root().parent_path(), call);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "StreamFileWriter: payload write failed\n");
  const fs::path run_dir = run_dir_of(result);
  EXPECT_EQ(names_in(run_dir), "overflow_frequency_01.ortime ");
  EXPECT_EQ(names_in(root()), run_dir.filename().string() + ' ');
  EXPECT_EQ(lines_with(ledger(), "ot_stop_stream_mode"),
            "ot_stop_stream_mode k=1 thread=1 stop_flag=0 status=0\n");
  EXPECT_TRUE(ledger().ends_with("ot_close k=1 thread=1 status=0\nend misuses=0\n")) << ledger();
}

}  // namespace
}  // namespace orvo::tests
