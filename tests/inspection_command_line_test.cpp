// ortime's command line, and what it shows on a terminal.
#include <gtest/gtest.h>

#include <iterator>
#include <limits>
#include <sstream>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/stream_input.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

using inspection::Command;

Command parse(const std::string& words) {
  std::istringstream stream("ortime " + words);
  const std::vector<std::string> list(std::istream_iterator<std::string>(stream), {});
  std::vector<const char*> argv;
  for (const std::string& word : list) argv.push_back(word == "''" ? "" : word.c_str());
  return inspection::parse_command_line(static_cast<int>(argv.size()), argv.data());
}

TEST(CommandLine, UsageErrorsNameTheFaultAndWhereToLook) {
  const ScratchDirectory scratch;
  const std::string file = scratch.file("a.ortime");
  write_file(file, "");
  const std::string directory = scratch.path().string();
  const struct {
    std::string words;
    std::string told;
  } cases[] = {
      {"", "a command is missing"},
      {"look x", "'look' is no command"},
      {"\x1b[2J x", "'\\x1b[2J' is no command"},
      {"info --bogus x", "--bogus\nTry 'ortime info --help'"},
      {"info --chunk-bytes 0 x", "'0' is not an integer from 1 to 1073741824"},
      {"info --chunk-bytes 99999999999999999999 x", "is not an integer from"},
      {"tags x --channel 4", "--channel: '4' is not an integer from 0 to 3"},
      {"tags --channel 1 2 x", "x"},
      {"tags x --format npy", "npy needs a file"},
      {"tags x -o t.npz", "'t.npz': ends neither in .csv nor in .npy"},
      {"tags x -o t.csv --format npy", "ends otherwise than --format"},
      {"tags x --from-ps 9223372036854775808", "is not an integer from -9"},
      {"tags x --from-ps 5 --to-ps 5", "must be greater than --from-ps"},
      {"tags " + file + " --run 1", "--run: needs a run directory"},
      {"verify " + file, "'" + file + "': is a stream file"},
      {"verify -", "is a stream file"},
      {"verify " + directory + " --divider 3", "'" + directory + "': is a run"},
      {"verify " + file + " --divider 4294967296", "from 1 to 4294967295"},
      {"verify " + file + " --requested-hz nan", "'nan' is not a number greater than 0"},
      {"verify " + file + " --divider 3 --tolerance-ppm nan", "of at least 0"},
      {"verify " + file + " --divider 3 --channel-mask 16", "not in range 0 to 15"},
      {"report x", "--output or --json is required"},
      {"report x -o ''", "the name is empty"},
      {"report x -o page --json page", "needs a file of its own"},
  };
  for (const auto& [words, told] : cases) {
    SCOPED_TRACE(words);
    testing::internal::CaptureStderr();
    const Command parsed = parse(words);
    const std::string error = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(std::holds_alternative<int>(parsed));
    EXPECT_EQ(std::get<int>(parsed), inspection::kExitUsage);
    EXPECT_NE(error.find(told), std::string::npos) << error;
    EXPECT_NE(error.find("--help'"), std::string::npos) << error;
  }
  EXPECT_EQ(std::get<inspection::VerifyOptions>(parse("verify /missing")).path, "/missing");
}

TEST(CommandLine, WordsBecomeOptions) {
  const ScratchDirectory scratch;
  const std::string file = scratch.file("a.ortime");
  write_file(file, "");
  const auto tags =
      std::get<inspection::TagsOptions>(parse("tags --channel 1 --channel 3,0 tags --from-ps -5 "
                                              "--to-ps 7 -o x.NPY --chunk-bytes 9"));
  EXPECT_EQ(tags.path, "tags");  // a file that is called like a command
  EXPECT_EQ(tags.channel_mask, 0b1011);
  EXPECT_EQ(tags.from_ps, -5);
  EXPECT_EQ(tags.to_ps, 7);
  EXPECT_EQ(tags.format, inspection::TagFormat::npy);
  EXPECT_EQ(tags.chunk_bytes, 9U);
  EXPECT_EQ(std::get<inspection::TagsOptions>(parse("tags x -o t --format npy")).format,
            inspection::TagFormat::npy);
  const auto verify = std::get<inspection::VerifyOptions>(
      parse("--chunk_bytes=010 verify " + file +
            " --divider 4294967295 --channel_mask 0B101 --tolerance-ppm inf "
            "--min_tags_per_channel=18446744073709551615"));
  EXPECT_EQ(verify.divider, 4294967295U);
  EXPECT_EQ(verify.requested_hz, std::nullopt);
  EXPECT_EQ(verify.channel_mask, 5);
  EXPECT_EQ(verify.tolerance_ppm, std::numeric_limits<double>::infinity());
  EXPECT_EQ(verify.min_tags_per_channel, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(verify.chunk_bytes, 10U);
  const auto report = std::get<inspection::ReportOptions>(
      parse("report run_1 -o page_1.html --title=bench_7 --json d"));
  EXPECT_EQ(report.path, "run_1");
  EXPECT_EQ(report.output, "page_1.html");
  EXPECT_EQ(report.json, "d");
  EXPECT_EQ(report.title, "bench_7");
  EXPECT_EQ(report.chunk_bytes, 1048576U);
}

TEST(Progress, TellsPartRateAndTimeLeft) {
  EXPECT_EQ(inspection::progress_line(500'000'000, 2'000'000'000, 5),
            "[######                  ] 25 %  500 of 2000 MB, 100 MB/s, 0:15 left");
  EXPECT_EQ(inspection::progress_line(3, 2, 0),
            "[########################] 100 %  0 of 0 MB, 0 MB/s");
  EXPECT_EQ(inspection::progress_line(500'000'000, std::nullopt, 5), "500 MB, 100 MB/s");
}

}  // namespace
}  // namespace orvo::tests
