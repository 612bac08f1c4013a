// The real tool when something fails: each call of the driver, and the disk at any byte.
//
// ORVO_EVERY_BYTE tries each size of files; without it a sample of about forty is tried.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "support/scratch.h"
#include "support/tool_runner.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

const std::string kCapture = "FMPXFSR?T";

/// Two runs; whatever was recorded of them passes.
const std::string kTwoRuns = kTool +
                             "--output-root=out --frequencies-hz=10000,20000 "
                             "--min-tags-per-channel=0 --capture-s=";

TEST(ToolFailures, AnyDriverCallEndsTheRunInGoodOrder) {
  const std::string unreported = ";fail=ot_stop_stream_mode:1:-6:always;fail=ot_close:1:-2";
  const struct {
    std::string failing;  // operation and number of its call
    std::string calls, label;
    std::string more = "";
  } cases[] = {
      {"ot_discover:1", "d", "discover"},
      {"ot_open_serial:1", "DLo", "open"},
      {"ot_identify:1", "DLOiC", "identify"},
      {"ot_set_calibration_freq:1", "DLOIfC", "set_calibration_freq"},
      {"ot_set_stream_channel_mask:1", "DLOIFmC", "set_stream_channels"},
      {"ot_set_packed_delta_config:1", "DLOIFMpC", "set_packed_delta_config"},
      {"ot_set_stream_interface:1", "DLOIFMPxC", "set_stream_interface"},
      {"ot_set_calibration_freq:2", "DLOIFMPXfC", "set_calibration_freq"},
      {"ot_start_stream_mode:1", "DLOIFMPXFsC", "start_stream(mode)"},
      {"ot_read_stream_bytes:1", "DLOIFMPXFSrZC", "read_stream_bytes"},
      {"ot_read_stream_bytes:1", "DLOIFMPXFSrzc", "read_stream_bytes", unreported},
      {"ot_read_stream_bytes:2", "DLOIFMPXFSRrZC", "read_stream_bytes"},
      {"ot_stop_stream_mode:1", "DLOIFMPXFSR?t[Zz]C", "stop_stream_any"},
      {"ot_set_calibration_freq:3", "DLOI" + kCapture + "fC", "set_calibration_freq"},
      {"ot_start_stream_mode:2", "DLOI" + kCapture + "FMPXFsC", "start_stream(mode)"},
      {"ot_stop_stream_mode:2", "DLOI" + kCapture + "FMPXFSR?tZC", "stop_stream_any"},
      {"ot_close:1", "DLOI(" + kCapture + "){2}c", ""},
  };
  for (const auto& c : cases) {
    for (const std::string how : {"", ":always:effect"}) {
      if (how != "" && c.failing == "ot_stop_stream_mode:2") continue;  // a run without an end
      SCOPED_TRACE(c.failing + how + c.more);
      const ScratchDirectory directory;
      const bool is_read = c.failing.starts_with("ot_read");  // it ends the capture, not the time
      const ToolResult tool = run_tool(
          directory.path(), kTwoRuns + (is_read ? "1000" : "0.02"),
          "fail=" + c.failing + ":-2" + how + (how.empty() ? ":detail=lost" : "") + c.more);
      EXPECT_TRUE(std::regex_match(calls_in(tool.ledger), std::regex(c.calls + "\\.")))
          << calls_in(tool.ledger);
      const bool has_detail = how.empty() && c.calls.starts_with("DLO");
      EXPECT_EQ(tool.err, c.label.empty() ? ""
                                          : c.label + ": input/output failure" +
                                                (has_detail ? " (lost)\n" : "\n"));
      EXPECT_EQ(tool.status, c.label.empty() ? 0 : 1);
      const fs::path root = directory.file("out");
      const fs::path run_dir = run_dir_in(root);
      EXPECT_EQ(recorded_bytes(run_dir), delivered_bytes(tool.ledger));
      EXPECT_EQ(fs::exists(root / "latest.json"), c.label.empty());
      EXPECT_EQ(fs::exists(run_dir / "overflow_frequency.csv"), c.label.empty());
    }
  }
}

// A recording of 150 bytes waits in a buffer, and its reports fail unseen: what was written shows.
TEST(ToolFailures, FullDiskAtAnyByteOfARecordingAndItsReports) {
  const bool every = std::getenv("ORVO_EVERY_BYTE") != nullptr;
  for (std::uint64_t size = 0; size < 2300; size += every || size < 13 ? 1 : 97) {
    SCOPED_TRACE(size);
    const ScratchDirectory directory;
    const std::string limit = "prlimit --fsize=" + std::to_string(size) + ' ';
    const ToolResult tool =
        ToolProcess(directory.path(), limit + kTwoRuns + "0.02", "pace=bytes:150").finish();
    const fs::path root = directory.file("out");
    const fs::path stem = run_dir_in(root) / "overflow_frequency";
    const std::string recording = stem.string() + "_01.ortime";
    const bool has_header = payload_of(recording) != "no recording";
    const std::string message = size < 8     ? "StreamFileReader: truncated magic\n"
                                : size < 12  ? "stream file: truncated header length\n"
                                : has_header ? ""
                                             : "StreamFileReader: truncated JSON header\n";
    EXPECT_EQ(tool.err, message);
    EXPECT_EQ(tool.status, message.empty() ? 0 : 1);
    EXPECT_LE(fs::file_size(recording), size);
    EXPECT_TRUE(
        std::regex_match(calls_in(tool.ledger), std::regex("DLOI(" + kCapture + "){1,2}C\\.")));
    if (!message.empty()) continue;
    const std::size_t begin = tool.out.find("Orvo timing packed-delta");
    const std::size_t end = tool.out.find("latest_summary=");
    ASSERT_NE(end, std::string::npos) << tool.out;
    EXPECT_EQ(read_file(stem.string() + ".summary.txt"),
              tool.out.substr(begin, end - begin).substr(0, size));
    for (const char* const report : {".csv", ".json"}) {
      const std::string text = read_file(stem.string() + report);
      EXPECT_EQ(read_file(root / (std::string("latest") + report)), text);
      EXPECT_TRUE(text.size() == size || text.ends_with("\"\n") || text.ends_with("}\n")) << text;
    }
  }
}

}  // namespace
}  // namespace orvo::tests
