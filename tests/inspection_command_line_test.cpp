// ortime's command line, and what it shows on a terminal.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <variant>

#include "orvo/inspection/stream_input.h"
#include "support/recordings.h"

namespace orvo::tests {
namespace {

class CommandLine : public Ortime {};

TEST_F(CommandLine, UsageErrorsNameTheFaultAndWhereToLook) {
  write_file("f", "");
  const std::pair<const char*, const char*> cases[] = {
      {"", "a command is missing"},
      {"\x1b[2J x", "'\\x1b[2J' is no command"},
      {"info --bogus x", "--bogus\nTry 'ortime info --help'"},
      {"info --chunk-bytes 99999999999999999999 x", "is not an integer from 1 to 1073741824"},
      {"tags x --channel 4", "--channel: '4' is not an integer from 0 to 3"},
      {"tags x --format npy", "npy needs a file"},
      {"tags x -o t.npz", "'t.npz': ends neither in .csv nor in .npy"},
      {"tags x -o t.csv --format npy", "ends otherwise than --format"},
      {"tags x --from-ps 5 --to-ps 5", "must be greater than --from-ps"},
      {"tags f --run 1", "--run: needs a run directory"},
      {"verify f", "'f': is a stream file"},
      {"verify -", "is a stream file"},
      {"verify . --divider 3", "'.': is a run"},
      {"verify f --divider 4294967296", "from 1 to 4294967295"},
      {"verify f --requested-hz nan", "'nan' is not a number greater than 0"},
      {"verify f --divider 3 --tolerance-ppm nan", "of at least 0"},
      {"verify f --divider 3 --channel-mask 16", "not in range 0 to 15"},
      {"report x", "--output or --json is required"},
      {"report x -o ''", "the name is empty"},
      {"report x -o page --json page", "needs a file of its own"},
  };
  for (const auto& [words, told] : cases) {
    EXPECT_EQ(ortime(words), inspection::kExitUsage) << words;
    EXPECT_TRUE(has(err, told)) << err;
    EXPECT_TRUE(has(err, "--help'")) << err;
  }
}

TEST_F(CommandLine, WordsBecomeOptions) {
  // A file that is called like a command.
  EXPECT_EQ(std::get<inspection::TagsOptions>(parse("tags --channel 1 tags")).path, "tags");
  const auto verify = std::get<inspection::VerifyOptions>(
      parse("--chunk_bytes=010 verify run_1 --channel_mask 0B101 "
            "--min_tags_per_channel=18446744073709551615"));
  EXPECT_EQ(verify.path, "run_1");
  EXPECT_EQ(verify.channel_mask, 5);
  EXPECT_EQ(verify.min_tags_per_channel, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(verify.chunk_bytes, 10U);
  const auto report =
      std::get<inspection::ReportOptions>(parse("report run_1 -o page_1 --title=bench_7"));
  EXPECT_EQ(report.output, "page_1");
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
