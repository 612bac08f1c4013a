// ortime's command line, and what it shows on a terminal.
#include <gtest/gtest.h>

#include <iterator>
#include <limits>
#include <sstream>

#include "orvo/inspection/command_line.h"
#include "orvo/inspection/exit_status.h"
#include "orvo/inspection/printable_text.h"
#include "orvo/inspection/tags/progress.h"
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
      {"info", "FILE is required"},
      {"info --bogus x", "--bogus\nTry 'ortime info --help'"},
      {"info --chunk-bytes 0 x", "'0' is not an integer from 1 to"},
      {"info --chunk-bytes 99999999999999999999 x", "is not an integer"},
      {"info --chunk-bytes 1 --chunk-bytes 2 x", "--chunk-bytes"},
      {"tags x y", "y"},
      {"tags x --channel 4", "'4' is not an integer from 0 to 3"},
      {"tags x --channel", "--channel"},
      {"tags x --format xml", "'xml' is not csv, jsonl or npy"},
      {"tags x --format npy", "npy needs a file"},
      {"tags x --from-ps 9223372036854775808", "is not an integer"},
      {"tags x --from-ps 5 --to-ps 5", "must be greater than --from-ps"},
      {"verify " + file, "is a stream file"},
      {"verify " + directory + " --divider 3", "is a run directory"},
      {"verify " + file + " --divider 3 --expected-decoded-hz 5", "excludes"},
      {"verify " + file + " --divider 0", "from 1 to 4294967295"},
      {"verify " + file + " --divider -1", "from 1 to 4294967295"},
      {"verify " + file + " --divider 4294967296", "from 1 to 4294967295"},
      {"verify " + file + " --expected-decoded-hz nan", "greater than 0"},
      {"verify " + file + " --expected-decoded-hz 0", "greater than 0"},
      {"verify " + file + " --divider 3 --tolerance-ppm inf", "of at least 0"},
      {"verify " + file + " --divider 3 --tolerance-ppm 25ppm", "of at least 0"},
      {"verify " + file + " --divider 3 --channel-mask 16", "a mask of channels"},
      {"verify " + file + " --divider 3 --channel-mask 0b", "a mask of channels"},
      {"verify " + file + " --divider 3 --min-tags-per-channel 18446744073709551616", "integer"},
      {"report x", "--output is required"},
      {"report x -o ''", "the name is empty"},
  };
  for (const auto& [words, told] : cases) {
    SCOPED_TRACE(words);
    testing::internal::CaptureStderr();
    EXPECT_EQ(std::get<int>(parse(words)), inspection::kExitUsage);
    const std::string error = testing::internal::GetCapturedStderr();
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
      std::get<inspection::TagsOptions>(parse("tags --channel 1 --channel 3 tags --from-ps -5 "
                                              "--to-ps 7 -o x.npy --chunk-bytes 9"));
  EXPECT_EQ(tags.file, "tags");  // a file that is called like a command
  EXPECT_EQ(tags.channel_mask, 0b1010);
  EXPECT_EQ(tags.from_ps, -5);
  EXPECT_EQ(tags.to_ps, 7);
  EXPECT_EQ(tags.format, inspection::TagFormat::npy);
  EXPECT_EQ(tags.chunk_bytes, 9U);
  const auto verify = std::get<inspection::VerifyOptions>(
      parse("verify " + file +
            " --divider 4294967295 --channel-mask 0B101 --tolerance-ppm 0.1 "
            "--min-tags-per-channel 18446744073709551615 --chunk-bytes 010"));
  EXPECT_EQ(verify.divider, 4294967295U);
  EXPECT_EQ(verify.expected_decoded_hz, std::nullopt);
  EXPECT_EQ(verify.channel_mask, 5);
  EXPECT_EQ(verify.tolerance_ppm, 0.1);
  EXPECT_EQ(verify.min_tags_per_channel, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(verify.chunk_bytes, 10U);
  const auto report = std::get<inspection::ReportOptions>(parse("report run -o page.html"));
  EXPECT_EQ(report.run_dir, "run");
  EXPECT_EQ(report.output, "page.html");
  EXPECT_EQ(report.chunk_bytes, 1048576U);
}

TEST(PrintableText, CommandsNoTerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain \\ text", "plain \\ text"},
      {"ü€😀", "ü€😀"},
      {"\x1b[2J\x7f\t", "\\x1b[2J\\x7f\\x09"},
      {"\xc2\x9b", "\\xc2\\x9b"},
      {"\xc0\xaf", "\\xc0\\xaf"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"a\xe2\x82", "a\\xe2\\x82"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(inspection::printable(text), shown);
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
