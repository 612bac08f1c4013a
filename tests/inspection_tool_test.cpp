// The two programs together: what the tool found in its recordings, ortime finds again.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>

#include "support/scratch.h"
#include "support/tool_runner.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

class InspectionTool : public testing::Test {
 protected:
  /// Runs the tool on what `sim` says; returns its run directory.
  fs::path record(const std::string& sim, const std::string& arguments) {
    fs::remove_all(scratch.file("out"));
    recorded = run_tool(scratch.path(), kTool + "--output-root=out " + arguments, "pace=ps:" + sim);
    return run_dir_in(scratch.file("out"));
  }

  [[nodiscard]] ToolResult ortime(const std::string& words) const {
    const std::string out = scratch.file("stdout");
    const std::string err = scratch.file("stderr");
    const std::string program = "env -u ORVO_PACKED_DEBUG " ORTIME " ";
    const int status = std::system((program + words + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
  }

  ScratchDirectory scratch;
  ToolResult recorded;
};

TEST_F(InspectionTool, FindsTheSameNumbersInEveryRecording) {
  const std::string stream = "100000000000;";
  const std::string arguments = "--capture-s=0.1";
  const struct {
    std::string sim;
    std::string arguments;
    int status;
  } cases[] = {
      {"350000000000", "", 0},
      {stream + "rate_error_ppm=2:40", arguments, 2},
      {stream + "lose=1:3@50,3:7@100", arguments, 2},
      {stream + "silent=1", arguments, 2},
      {stream + "damage=flip@150000,flip@150001,flip@150002,flip@150003", arguments, 2},
      {"50000000000", arguments, 2},  // ends early
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sim);
    const fs::path run_dir = record(c.sim, c.arguments);
    EXPECT_EQ(recorded.status, c.status) << recorded.err;
    const ToolResult again = ortime("verify " + run_dir.string());
    EXPECT_EQ(again.status, c.status);
    EXPECT_EQ(again.err, "");  // which names each number that the report has otherwise
    EXPECT_EQ(
        std::regex_replace(lines_with(again.out, "run "), std::regex(" payload_bytes=[0-9]+"), ""),
        lines_with(recorded.out, "run "));
  }
}

TEST_F(InspectionTool, GivesScriptsNoGreenLightTheyShouldNotGet) {
  const fs::path run_dir =
      record("50000000000", "--capture-s=0.05 --min-tags-per-channel=5 --tolerance-ppm=inf");
  ASSERT_EQ(recorded.status, 0) << recorded.err;
  const ToolResult again = ortime("verify " + run_dir.string());
  EXPECT_EQ(again.status, 0);
  EXPECT_TRUE(again.err.starts_with(
      "ortime: taken from the verdicts of the report, which does not hold it: min_tags_per"))
      << again.err;
  EXPECT_EQ(ortime("verify " + scratch.file("out/latest.json")).status, 0);
  const std::string file = (run_dir / "overflow_frequency_01.ortime").string();
  EXPECT_EQ(ortime("verify - --requested-hz=1000 --min-tags-per-channel=5 <" + file).status, 0);
  const std::string tags = ortime("tags " + file).out;
  EXPECT_GT(tags.size(), 1000U);
  EXPECT_EQ(ortime("tags - <" + file).out, tags);
  EXPECT_EQ(ortime("tags --run=1 " + run_dir.string()).out, tags);
  EXPECT_EQ(ortime("info " + file + " >/dev/full || exit $?").status, 1);

  const fs::path copy = scratch.path() / "copy";
  const fs::path cut = copy / "overflow_frequency_02.ortime";
  fs::copy(run_dir, copy);
  fs::resize_file(cut, fs::file_size(cut) - 4000);
  EXPECT_EQ(ortime("verify " + copy.string()).status, 3);
  EXPECT_EQ(ortime("verify --json " + copy.string()).status, 3);
  fs::remove(cut);
  EXPECT_EQ(ortime("verify " + copy.string()).status, 0);  // read where it was recorded
}

}  // namespace
}  // namespace orvo::tests
