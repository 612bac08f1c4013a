// The tool where nobody thought of it: odd paths, folders in the place of files, a console that is
// closed or goes away, other time zones and locales.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>

#include "support/scratch.h"
#include "support/tool_runner.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

const std::string kAll = "DLOIFMPXFSRTC.";  // driver calls of one run

std::string with(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
  return text;
}

class ToolSurroundings : public testing::Test {
 protected:
  [[nodiscard]] static ToolCall plain_call(const std::string& root = "out") {
    return {.arguments = {"--output-root=" + root, "--capture-s=0.05", "--frequencies-hz=1e5"},
            .sim = "pace=bytes:9000"};
  }
  /// The call's results are those of any other run.
  void expect_pass(const ToolCall& call, const char* after = nullptr) const {
    const ToolResult tool = undisturbed([&] {
      fs::remove_all(root);
      if (after == nullptr) return run_tool(here.path(), call);
      ToolProcess leaves(here.path(), call);  // the reader of its output does, after a text
      leaves.run_until([&] { return leaves.out.find(after) != std::string::npos; });
      leaves.close_output();
      return ToolResult(leaves.finish());
    });
    EXPECT_EQ(tool.status, 0);
    EXPECT_TRUE(tool.err.empty() || !call.closed.empty()) << tool.err;
    EXPECT_EQ(calls_in(tool.ledger), kAll);
    // The ledger is a file opened early: it would be the one to take in the console's text.
    EXPECT_EQ(tool.ledger.find("Output: "), std::string::npos);
    EXPECT_EQ(wrong_recordings(run_dir_in(root), tool.ledger), "");
    EXPECT_TRUE(read_file(root / "latest.csv").find("\n100000.000,99929.") != std::string::npos);
    EXPECT_TRUE(read_file(root / "latest_summary.txt").ends_with(" pass=true\n"));
  }

  const ScratchDirectory here;
  const fs::path root = here.path() / "out";
};

TEST_F(ToolSurroundings, OddPaths) {
  for (const std::string name :
       {"it's", "\"q\"", "two\nlines", "\xC3\xA9\xFF\x80", "a b;c,d#e%s"}) {
    SCOPED_TRACE(name);
    const fs::path folder = here.file(name);
    fs::create_directory(folder);
    const std::string ini = (folder / "ot_verify_overflow_frequency.ini").string();
    write_file(ini, "");
    const std::string out = name + "=" + name;
    const ToolResult tool = undisturbed([&] {
      fs::remove_all(folder / out);
      return run_tool(folder, plain_call(out));
    });
    EXPECT_EQ(tool.status, 0) << tool.err;
    const std::string run_dir = run_dir_in(folder / out).string();
    const std::string escaped = with(with(run_dir, "\"", "\\\""), "\n", "\\n");
    const std::string json = read_file(folder / out / "latest.json");
    EXPECT_NE(json.find("\"stream_file\":\"" + escaped + "/overflow"), std::string::npos) << json;
    EXPECT_TRUE(tool.out.starts_with("Config: " + ini + "\nOutput: " + run_dir + "\nDevice: "));
  }
}

TEST_F(ToolSurroundings, ClosedConsoleAndAReaderThatLeaves) {
  for (const char* const closed : {"0", "1", "2", "01", "02", "12", "012"}) {
    SCOPED_TRACE(closed);
    ToolCall call = plain_call();
    call.closed = closed;
    call.environment = {"ORVO_PACKED_DEBUG=1"};  // with lines for standard error, too
    expect_pass(call);
  }
  for (const char* const after : {"", "Device", "Capture 1"}) expect_pass(plain_call(), after);
  for (const auto& [argument, status] : {std::pair("--help", 0), {"--capture-s=0", 64}}) {
    EXPECT_EQ(run_tool(here.path(), {.arguments = {argument}, .closed = "12"}).status, status);
  }
}

TEST_F(ToolSurroundings, TimeZonesAndLocales) {
  for (const char* const zone : {"", "<+14>-14", "CET-1CEST", "Nowhere/At_All", "<a>-24:59:59"}) {
    SCOPED_TRACE(zone);
    setenv("TZ", zone, 1);  // of this process, and so of the tool's
    tzset();
    const std::time_t before = std::time(nullptr);
    expect_pass(plain_call());
    const std::string stamp = run_dir_in(root).filename().string();
    EXPECT_TRUE(local_stamp(before) <= stamp && stamp <= local_stamp(std::time(nullptr))) << stamp;
  }
  ToolCall call = plain_call();
  call.environment = {"LC_ALL=de_DE.UTF-8", "LC_NUMERIC=fr_FR", "LANG=none"};
  expect_pass(call);
}

// RUN/ is the run's directory; the message stands in the tool's line. "" for a run that passes.
TEST_F(ToolSurroundings, FolderInThePlaceOfAFile) {
  const struct {
    const char *folder, *message, *calls;
  } cases[] = {
      {"fine_lut.bin", "", kAll.c_str()},
      {"out/latest.csv", "", kAll.c_str()},
      {"RUN/overflow_frequency_01.ortime", "StreamFileWriter: cannot open ", "DLOIFMPXFC."},
      {"RUN/overflow_frequency.csv", "could not open overflow CSV output", kAll.c_str()},
      {"RUN/overflow_frequency.json", "could not open overflow JSON output", kAll.c_str()},
      {"RUN/overflow_frequency.summary.txt", "could not open text output", kAll.c_str()},
      {"out/latest.json/content", "could not publish ", kAll.c_str()},
      {"out/latest_summary.txt", "could not open text output", kAll.c_str()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.folder);
    const ToolResult tool = undisturbed([&] {
      fs::remove_all(root);
      // The run's directory is named by the second in which it starts.
      const std::time_t last = std::time(nullptr) + 4;
      for (std::time_t time = last - 4; time <= last; ++time) {
        fs::create_directories(here.path() / with(c.folder, "RUN", "out/" + local_stamp(time)));
      }
      const ToolResult result = run_tool(here.path(), plain_call());
      const std::string last_run_dir = (root / local_stamp(last)).string();
      if (lines_with(result.out, "Output: ") > "Output: " + last_run_dir + '\n') throw Starved();
      return result;
    });
    const bool passes = *c.message == '\0';
    EXPECT_EQ(tool.status, passes ? 0 : 1);
    EXPECT_TRUE(passes ? tool.err.empty() : tool.err.starts_with(c.message)) << tool.err;
    EXPECT_EQ(tool.out.find("latest_summary=") != std::string::npos, passes);
    EXPECT_EQ(calls_in(tool.ledger), c.calls);
  }
}

}  // namespace
}  // namespace orvo::tests
