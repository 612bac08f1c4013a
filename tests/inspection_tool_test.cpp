// The two programs together: what the tool found in its recordings, ortime finds again.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/scratch.h"
#include "support/tool_runner.h"

namespace orvo::tests {
namespace {

ToolResult ortime(const ScratchDirectory& scratch, const std::string& words) {
  const std::string out = scratch.file("stdout");
  const std::string err = scratch.file("stderr");
  const std::string program = "env -u ORVO_PACKED_DEBUG " ORTIME " ";
  const int status = std::system((program + words + " >" + out + " 2>" + err).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
}

/// The rows of the tool's CSV as the lines that ortime prints of channels.
std::string channel_lines(const std::string& csv) {
  const std::regex row(
      "(?:[^,\n]*,){5}([0-3]),([0-9]+),(-?[0-9]+),(-?[0-9]+),([^,]*),([^,]*),([01]),.*\n");
  const std::string lines = std::regex_replace(
      csv.substr(csv.find('\n') + 1), row,
      "  ch$1 count=$2 first_ps=$3 last_ps=$4 measured_hz=$5 ppm_error=$6 pass=$7\n");
  return std::regex_replace(std::regex_replace(lines, std::regex("pass=1"), "pass=true"),
                            std::regex("pass=0"), "pass=false");
}

std::size_t count_of(const std::string& text, const std::regex& what) {
  return static_cast<std::size_t>(
      std::distance(std::sregex_iterator(text.begin(), text.end(), what), {}));
}

TEST(InspectionTool, FindsTheSameNumbersInEveryRecording) {
  const char* const short_capture = "--capture-s=0.1";
  const struct {
    const char* what;
    std::string sim;
    Texts arguments;
    int status;
    std::size_t failing;  // channels of all three runs
  } cases[] = {
      {"default verification", "ps:350000000000", {}, 0, 0},
      {"rate error", "ps:100000000000;rate_error_ppm=2:40", {short_capture}, 2, 3},
      {"lost events", "ps:100000000000;lose=1:3@50,3:7@100", {short_capture}, 2, 5},
      {"silent channel", "ps:100000000000;silent=1", {short_capture}, 2, 12},
      {"lost lock",
       "ps:100000000000;damage=flip@150000,flip@150001,flip@150002,flip@150003",
       {short_capture},
       2,
       2},
      {"short capture", "ps:50000000000", {short_capture}, 2, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const ScratchDirectory scratch;
    Texts arguments = {"--output-root=out"};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const ToolResult recorded = undisturbed([&] {
      std::filesystem::remove_all(scratch.file("out"));
      return run_tool(scratch.path(), {.arguments = arguments, .sim = "pace=" + c.sim});
    });
    const std::filesystem::path run_dir = run_dir_in(scratch.file("out"));
    const std::string expected = channel_lines(read_file(run_dir / "overflow_frequency.csv"));
    const std::string run_lines = lines_with(recorded.out, "run ");
    ASSERT_EQ(recorded.status, c.status) << recorded.err;
    ASSERT_EQ(count_of(expected, std::regex("  ch")), 12U);
    ASSERT_EQ(count_of(expected, std::regex("pass=false")), c.failing) << expected;

    const std::filesystem::path moved = scratch.path() / "archived";
    for (const bool is_moved : {false, true}) {
      if (is_moved) {
        std::filesystem::rename(run_dir, moved);
      }
      const ToolResult again = ortime(scratch, "verify " + (is_moved ? moved : run_dir).string());
      EXPECT_EQ(again.status, c.status);
      EXPECT_EQ(again.err, "");
      EXPECT_EQ(lines_with(again.out, "  ch"), expected);
      EXPECT_EQ(std::regex_replace(lines_with(again.out, "run "),
                                   std::regex(" payload_bytes=[0-9]+"), ""),
                run_lines);
      EXPECT_TRUE(again.out.ends_with(c.status == 0 ? "\npass=true\n" : "\npass=false\n"));
    }
  }
}

TEST(InspectionTool, GivesScriptsNoGreenLightTheyShouldNotGet) {
  const ScratchDirectory scratch;
  const ToolResult recorded = undisturbed([&] {
    std::filesystem::remove_all(scratch.file("out"));
    return run_tool(scratch.path(),
                    {.arguments = {"--output-root=out", "--capture-s=0.05",
                                   "--min-tags-per-channel=5", "--tolerance-ppm=inf"},
                     .sim = "pace=ps:50000000000"});
  });
  ASSERT_EQ(recorded.status, 0) << recorded.err;
  const std::filesystem::path run_dir = run_dir_in(scratch.file("out"));
  const ToolResult again = ortime(scratch, "verify " + run_dir.string());
  EXPECT_EQ(again.status, 0);
  EXPECT_NE(again.err.find("taken from the verdicts of the report, which does not hold it: "
                           "min_tags_per_channel="),
            std::string::npos)
      << again.err;
  EXPECT_EQ(ortime(scratch, "verify " + scratch.file("out/latest.json")).status, 0);
  const std::filesystem::path copy = scratch.path() / "copy";
  const std::filesystem::path cut = copy / "overflow_frequency_02.ortime";
  std::filesystem::copy(run_dir, copy);
  std::filesystem::resize_file(cut, std::filesystem::file_size(cut) - 4000);
  const ToolResult disagree = ortime(scratch, "verify " + copy.string());
  EXPECT_EQ(disagree.status, 3);
  EXPECT_NE(disagree.out.find("\npass=false disagreements="), std::string::npos) << disagree.out;
  EXPECT_EQ(ortime(scratch, "verify --json " + copy.string()).status, 3);
  std::filesystem::remove(cut);
  EXPECT_EQ(ortime(scratch, "verify " + copy.string()).status, 0);  // read where it was recorded
  std::filesystem::rename(run_dir, scratch.file("away"));
  const ToolResult missing = ortime(scratch, "verify " + copy.string());
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(count_of(missing.out, std::regex("\n  ch")), 8U) << missing.out;
  std::filesystem::remove(copy / "overflow_frequency.json");
  const ToolResult unended = ortime(scratch, "info --json " + copy.string());
  EXPECT_EQ(unended.status, 0) << unended.err;
  EXPECT_EQ(count_of(unended.out, std::regex("\"decodable\"")), 2U) << unended.out;

  const std::string file = (copy / "overflow_frequency_01.ortime").string();
  EXPECT_EQ(ortime(scratch, "info " + file + " >/dev/full || exit $?").status, 1);
  EXPECT_EQ(ortime(scratch, "tags - <" + file).out, ortime(scratch, "tags " + file).out);
  EXPECT_EQ(ortime(scratch, "tags --run=1 " + copy.string()).out,
            ortime(scratch, "tags " + file).out);
  EXPECT_EQ(
      ortime(scratch, "verify - --requested-hz=1000 --min-tags-per-channel=5 <" + file).status, 0);
}

}  // namespace
}  // namespace orvo::tests
