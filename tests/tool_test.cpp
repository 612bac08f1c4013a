// The real tool on the simulated instrument: console, statuses, files, and calls of the driver.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "orvo/verification/directory_lock.h"
#include "support/scratch.h"
#include "support/tool_runner.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

// 20 ms of instrument time, which the first reads get at once: the same bytes in every run.
const std::string kSim = "pace=ps:20000000000;";
/// A ledger's end: closed once, and nothing that the instrument may complain about was asked of it.
constexpr const char* kClosed = "ot_close k=1 thread=1 status=0\nend misuses=0\n";
constexpr const char* kFileName = "ot_verify_overflow_frequency.ini";

class Tool : public testing::Test {
 protected:
  Tool() {
    write_file(file(kFileName),
               "output_root = o\"u\\t  # in the working directory\n"
               "capture_s = 0.05\nfrequencies_hz = 10000\ntolerance_ppm = 10\n");
  }

  /// Into an output root that is empty, unless a test has made it a file.
  [[nodiscard]] ToolResult run(const std::string& sim, const std::string& arguments = "",
                               const std::string& before = "") const {
    if (fs::is_directory(root())) fs::remove_all(root());
    return run_tool(here(), before + kTool + arguments, kSim + sim);
  }

  [[nodiscard]] std::string file(const std::string& name) const { return dir_.file(name); }
  [[nodiscard]] const fs::path& here() const { return dir_.path(); }
  [[nodiscard]] fs::path root() const { return here() / "o\"u\\t"; }

 private:
  ScratchDirectory dir_;
};

/// Count and verdict of each channel that the summary shows, such as "201+ 200- ".
std::string channels_in(const std::string& summary) {
  std::string text = lines_with(summary, "  ch");
  text = std::regex_replace(text, std::regex("  ch. count=([0-9]+) .*pass=true\n"), "$1+ ");
  return std::regex_replace(text, std::regex("  ch. count=([0-9]+) .*pass=false\n"), "$1- ");
}

/// The name of the folder of a run that starts at `time`.
std::string local_stamp(std::time_t time) {
  std::tm local = {};
  localtime_r(&time, &local);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y%m%d_%H%M%S", &local)};
}

// The first run has too few timestamps; the last one passes, at a divider (16) that is not the
// quotient of the frequencies (15.49) rounded.
TEST_F(Tool, PrintsAndWritesAllOfItsResults) {
  setenv("TZ", "<+14>-14", 1);  // of this process, and so of the tool's
  tzset();
  const std::time_t before = std::time(nullptr);
  const ToolResult result = run("silent=3",
                                "'--frequencies-hz=1000;2e6' capture-s=0.0625 --packed-bits=16 "
                                "--packed-quantum-ps=16 --channel-mask=5 --tolerance-ppm=39.5");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "");
  const std::string start = run_dir_in(root()).filename().string();
  EXPECT_TRUE(local_stamp(before) <= start && start <= local_stamp(std::time(nullptr))) << start;
  const auto shown = [&](const std::string& text) {
    return std::regex_replace(std::regex_replace(text, std::regex(here().string()), "HERE"),
                              std::regex(start), "START");
  };
  const std::string summary = R"(Orvo timing packed-delta overflow frequency verification
output=HERE/o"u\t/START
csv=HERE/o"u\t/START/overflow_frequency.csv
json=HERE/o"u\t/START/overflow_frequency.json
capture_s=0.062
packed_bits=16
packed_quantum_ps=16
decoded_timestamp_seconds_per_second=0.999900000
tolerance_ppm=39.500
pass=false
run requested_hz=1000.000 effective_hz=1000.008 expected_decoded_hz=1000.108 divider=30978 overflow_required=true decoded_tags=42 pass=false
  ch0 count=21 measured_hz=1000.108432 ppm_error=-0.000211 pass=false
  ch2 count=21 measured_hz=1000.108433 ppm_error=0.000590 pass=false
run requested_hz=2000000.000 effective_hz=1936141.304 expected_decoded_hz=1936334.938 divider=16 overflow_required=false decoded_tags=77454 pass=true
  ch0 count=38727 measured_hz=1936334.937679 ppm_error=-0.000084 pass=true
  ch2 count=38727 measured_hz=1936334.937679 ppm_error=-0.000084 pass=true
)";
  EXPECT_EQ(shown(result.out), R"(Config: HERE/ot_verify_overflow_frequency.ini
Output: HERE/o"u\t/START
Device: Orvo timing instrument, simulated, SIM1001
Capture 1/2: requested 1000.000 Hz/channel
Capture 2/2: requested 2000000.000 Hz/channel
)" + summary + R"(latest_summary=HERE/o"u\t/latest_summary.txt
latest_json=HERE/o"u\t/latest.json
)");
  const std::string csv =
      R"(requested_hz,effective_hz,expected_decoded_hz,divider,overflow_required,channel,count,first_ps,last_ps,measured_hz,ppm_error,pass,stream_file
1000.000,1000.008,1000.108,30978,1,0,21,1000000000160,1019997831760,1000.108431756,-0.000211,0,"HERE/o"u\t/START/overflow_frequency_01.ortime"
1000.000,1000.008,1000.108,30978,1,1,0,0,0,0.000000000,0.000000,0,"HERE/o"u\t/START/overflow_frequency_01.ortime"
1000.000,1000.008,1000.108,30978,1,2,21,1000000000608,1019997832192,1000.108432556,0.000590,0,"HERE/o"u\t/START/overflow_frequency_01.ortime"
1000.000,1000.008,1000.108,30978,1,3,0,0,0,0.000000000,0.000000,0,"HERE/o"u\t/START/overflow_frequency_01.ortime"
2000000.000,1936141.304,1936334.938,16,0,0,38727,1019997832352,1039997471488,1936334.937678548,-0.000084,1,"HERE/o"u\t/START/overflow_frequency_02.ortime"
2000000.000,1936141.304,1936334.938,16,0,1,0,0,0,0.000000000,0.000000,0,"HERE/o"u\t/START/overflow_frequency_02.ortime"
2000000.000,1936141.304,1936334.938,16,0,2,38727,1019997832800,1039997471936,1936334.937678548,-0.000084,1,"HERE/o"u\t/START/overflow_frequency_02.ortime"
2000000.000,1936141.304,1936334.938,16,0,3,0,0,0,0.000000000,0.000000,0,"HERE/o"u\t/START/overflow_frequency_02.ortime"
)";
  const std::string json_until_second_run = R"({
  "verification":"overflow_frequency",
  "pass":false,
  "capture_s":0.062500,
  "packed_delta_bits":16,
  "packed_delta_quantum_ps":16,
  "channel_mask":5,
  "decoded_timestamp_seconds_per_second":0.999900000,
  "tolerance_ppm":39.500,
  "runs":[
    {
      "requested_hz":1000.000,
      "effective_hz":1000.008,
      "expected_decoded_hz":1000.108,
      "divider":30978,
      "overflow_required":true,
      "pass":false,
      "stream_file":"HERE/o\"u\\t/START/overflow_frequency_01.ortime",
      "payload_bytes":216,
      "decoded_tags":42,
      "channels":[
        {"channel":0,"count":21,"first_ps":1000000000160,"last_ps":1019997831760,"measured_hz":1000.108431756,"ppm_error":-0.000211,"pass":false},
        {"channel":1,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false},
        {"channel":2,"count":21,"first_ps":1000000000608,"last_ps":1019997832192,"measured_hz":1000.108432556,"ppm_error":0.000590,"pass":false},
        {"channel":3,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false}
      ]
    },
    {
      "requested_hz":2000000.000,
)";
  const std::string json_end = R"(
        {"channel":3,"count":0,"first_ps":0,"last_ps":0,"measured_hz":0.000000000,"ppm_error":0.000000,"pass":false}
      ]
    }
  ]
}
)";
  const std::string stem = start + "/overflow_frequency";
  const auto content = [&](const std::string& name) { return shown(read_file(root() / name)); };
  for (const std::string& at : {stem, std::string("latest")}) {
    EXPECT_EQ(content(at + ".csv"), csv);
    const std::string json = content(at + ".json");
    EXPECT_TRUE(json.starts_with(json_until_second_run) && json.ends_with(json_end)) << json;
  }
  EXPECT_EQ(content(stem + ".summary.txt"), summary);
  EXPECT_EQ(content("latest_summary.txt"), summary);
}

TEST_F(Tool, JudgesEachChannel) {
  const char* const all = "201+ 201+ 201+ 201+ ";
  const struct {
    const char *sim, *arguments;
    int status;
    const char* channels;
  } cases[] = {
      {"", "", 0, all},
      {"rate_error_ppm=2:40", "--tolerance-ppm=25", 2, "201+ 201+ 201- 201+ "},
      {"rate_error_ppm=2:-24.9", "--tolerance-ppm=25", 0, all},
      {"silent=1,3", "--channel-mask=5", 0, "201+ 201+ "},
      {"silent=1", "", 2, "0- 0- 0- 0- "},  // all have to sync
      {"lose=1:3@100,3:7@150", "--channel-mask=0xFB", 2, "201+ 198- 194- "},
      {"", "--packed-bits=40", 0, all},                                // the instrument takes 31
      {"", "--min-tags-per-channel=201 --channel-mask=0x10", 0, all},  // no mask: all
      {"", "--min-tags-per-channel=202", 2, "201- 201- 201- 201- "},
      {"noise_bytes=1000", "--packed-bits=8", 0, all},
      {"clock_ps=14315125000000", "--packed-bits=31", 0, all},  // its clock wraps on the way
      {"fail=ot_read_stream_bytes:1:-3;fail=ot_read_stream_bytes:2:0", "", 0, all},
      {"fail=ot_read_stream_bytes:1:-3:effect", "", 2, "0- 0- 0- 0- "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sim << c.arguments);
    const ToolResult result = run(c.sim, c.arguments);
    EXPECT_EQ(result.status, c.status) << result.err;
    EXPECT_EQ(channels_in(result.out), c.channels);
    EXPECT_TRUE(result.ledger.ends_with(kClosed));
  }
}

TEST_F(Tool, HandsItsSettingsToTheDriver) {
  const ToolResult result =
      run("",
          "--channel-mask=0x15 --tdl-index=300 --packed-bits=24 --chunk-bytes=100 "
          "--packed-quantum-ps=0x10 --frequencies-hz=12345.5 --queue-chunks=0");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(lines_with(result.ledger, "ot_set_") + lines_with(result.ledger, "ot_st"),
            "ot_set_calibration_freq k=1 thread=1 freq_hz=12345.500000 status=0\n"
            "ot_set_stream_channel_mask k=1 thread=1 mask=5 status=0\n"
            "ot_set_packed_delta_config k=1 thread=1 bits=24 quantum_ps=16 status=0\n"
            "ot_set_stream_interface k=1 thread=1 transport=1 format=2 status=0\n"
            "ot_set_calibration_freq k=2 thread=1 freq_hz=12345.500000 status=0\n"
            "ot_start_stream_mode k=1 thread=1 mode=0 tdl_index=44 status=0\n"
            "ot_stop_stream_mode k=1 thread=1 stop_flag=1 status=0\n");
  const std::regex reads("(ot_read_stream_bytes .* capacity=4096 timeout_ms=20 .*\n)+");
  EXPECT_TRUE(std::regex_match(lines_with(result.ledger, "ot_read_"), reads)) << result.ledger;
}

TEST_F(Tool, EndsBeforeAnythingIsTouched) {
  const std::string usage = run("", {"--help"}).out;
  EXPECT_TRUE(usage.starts_with("ot_verify_overflow_frequency\n\nVerify packed-delta")) << usage;
  write_file(root().string(), "a file");  // below which no folder can be made
  const std::string invalid = "invalid overflow_frequency configuration\n";
  const std::string no_folder =
      "filesystem error: cannot create directories: Not a directory [" + root().string() + '/';
  const struct {
    std::string arguments;
    int status;
    std::string out, err;
  } cases[] = {
      {"--capture-s=fast -- -h", 0, usage, ""},
      {"/? --capture-s=0", 0, usage, ""},
      {"capture_s=nan", 64, "", invalid},
      {"--packed-quantum-ps=0x10000 --HELP --help=1", 64, "", invalid},
      {"--packed-bits=0", 64, "", invalid},
      {"--packed-bits=0 --channel-mask=+-0b1", 1, "", "stoul\n"},
      {"--tdl-index=0b1" + std::string(64, '0'), 1, "", "stoul\n"},
      {"--capture-s=0 --tolerance-ppm=1e999", 1, "", "stod\n"},
      {"--chunk-bytes=18446744073709551616", 1, "", "stoull\n"},
      {"-packed-bits=0 --packed-bits ----tdl-index=x", 1, "", no_folder},
      {"'--output-root=o\"u\\t/a-b=c'", 1, "", no_folder + "a-b=c/"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ToolResult result = run("", c.arguments);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err.substr(0, c.err.size()), c.err);
    EXPECT_EQ(c.err.empty(), result.err.empty());
    EXPECT_EQ(names_in(here()), "o\"u\\t " + std::string(kFileName) + " ");
  }
}

TEST_F(Tool, WaitsForAStartOfTheSameSecond) {
  std::vector<std::unique_ptr<verification::DirectoryLock>> others;  // of the next minute
  const std::time_t now = std::time(nullptr);
  for (std::time_t second = now; second < now + 60; ++second) {
    fs::create_directories(root() / local_stamp(second));
    others.push_back(std::make_unique<verification::DirectoryLock>(root() / local_stamp(second)));
  }
  ToolProcess tool(here(), kTool + "--min-tags-per-channel=0", kSim);
  EXPECT_TRUE(tool.run_until([&] { return tool.open_files(root()) == 1; }));
  EXPECT_EQ(tool.ledger, "");
  others.clear();
  EXPECT_EQ(tool.finish().status, 0) << tool.err;
}

TEST_F(Tool, NumbersItsRecordings) {
  EXPECT_EQ(run("", "--frequencies-hz=2e4,2e4,2e4,2e4,2e4,2e4,2e4,2e4,2e4,1e4").status, 0);
  const fs::path run_dir = run_dir_in(root());
  const std::string names = names_in(run_dir);
  EXPECT_NE(names.find("_08.ortime overflow_frequency_09.ortime overflow_frequency_10.ortime "),
            std::string::npos)
      << names;
}

TEST_F(Tool, ReadsTheFirstConfigurationFile) {
  for (const char* const program : {"bin/tool", "elsewhere/tool", "tool"}) {
    fs::create_directories((here() / program).parent_path());
    fs::create_symlink(ORVO_TOOL, here() / program);
  }
  write_file(file(std::string("bin/") + kFileName), "");
  const auto config_of = [&](const std::string& program) {
    const std::string command = "env PATH=.:$PATH ot-simulated " + program + " --output-root=out";
    const std::string out = run_tool(here(), command, "instruments=0").out;
    return fs::path(lines_with(out, "Config: ")).lexically_relative("Config: " + here().string());
  };
  const std::string name = kFileName + std::string("\n");
  EXPECT_EQ(config_of("bin/tool"), "bin/" + name);
  EXPECT_EQ(config_of("tool"), name);
  EXPECT_EQ(config_of("elsewhere/tool"), name);
  fs::remove(file(kFileName));
  EXPECT_TRUE(config_of("tool").string().ends_with("/verification/" + name));
}

TEST_F(Tool, ChoosesTheInstrument) {
  const struct {
    const char *environment, *arguments, *serial;
    bool discovers;
  } cases[] = {
      {"ORVO_TIMING_PORT=", "", "SIM1001", true},
      {"ORVO_TIMING_PORT=sim:1", "", "SIM1002", false},
      {"ORVO_TIMING_PORT=sim:1", "--control-port=sim:2", "SIM1003", false},
      {"ORVO_TIMING_USB_SERIAL=SIM1002", "--usb-serial=SIM1003", "SIM1003", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.environment << c.arguments);
    const ToolResult result = run("instruments=3;fail=ot_set_calibration_freq:1:-2", c.arguments,
                                  "env " + std::string(c.environment) + ' ');
    EXPECT_EQ(lines_with(result.out, "Device: "),
              std::string("Device: Orvo timing instrument, simulated, ") + c.serial + '\n');
    EXPECT_EQ(!lines_with(result.ledger, "ot_discover").empty(), c.discovers);
  }
}

TEST_F(Tool, NamesWhatItDidNotFind) {
  EXPECT_EQ(run("instruments=0").err, "open_first: no ORVO device found\n");
  EXPECT_EQ(run("", "--control-port=/dev/x").err, "open: not found\n");
  // The unfinished line shows which step failed.
  EXPECT_TRUE(run("fail=ot_identify:1:-2").out.ends_with("\nDevice: "));
}

TEST_F(Tool, NeedsNoConsole) {
  const auto expect_results = [&](const ToolResult& result) {
    EXPECT_EQ(result.status, 0) << result.err;
    // The ledger is a file opened early: it would be the one to take in the console's text.
    EXPECT_EQ(result.ledger.find("Output: "), std::string::npos);
    EXPECT_EQ(recorded_bytes(run_dir_in(root())), delivered_bytes(result.ledger));
    EXPECT_TRUE(read_file(root() / "latest_summary.txt").ends_with(" pass=true\n"));
    fs::remove_all(root());
  };
  const std::string command = kTool + "--min-tags-per-channel=0 ";
  for (const char* const after : {"", "Device", "Capture 1"}) {  // its reader leaves
    ToolProcess tool(here(), command, kSim);
    tool.run_until([&] { return tool.out.find(after) != std::string::npos; });
    tool.close_output();
    expect_results(tool.finish());
  }
  for (const char* const closed :
       {"<&-", ">&-", "2>&-", "<&- >&-", "<&- 2>&-", ">&- 2>&-", "<&- >&- 2>&-"}) {
    SCOPED_TRACE(closed);  // with lines for standard error, too
    expect_results(
        ToolProcess(here(), "env ORVO_PACKED_DEBUG=1 " + command + closed, kSim).finish());
  }
  EXPECT_EQ(ToolProcess(here(), kTool + "--capture-s=0 <&- >&- 2>&-").finish().status, 64);
}

}  // namespace
}  // namespace orvo::tests
