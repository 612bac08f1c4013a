// ortime's command line, and stream files looked into: `info`, `tags`, and what both tell.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <string>
#include <utility>

#include "orvo/inspection/lock_history.h"
#include "orvo/inspection/stream_input.h"
#include "support/decoding.h"
#include "support/recordings.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;
using timing::LockEvent;

class Inspection : public Ortime {
 protected:
  /// A raw64 file of picosecond records.
  void write_tags(const Tags& tags, timing::Mode mode = timing::Mode::external) {
    header.mode = mode;
    header.stream_format = timing::Format::raw64;
    Bytes bytes;
    for (const auto& [channel, time_ps] : tags) {
      put_big_endian(bytes, std::uint64_t{channel} << 61 | static_cast<std::uint64_t>(time_ps), 8);
    }
    timing::StreamFileWriter writer;
    writer.open("a.ortime", header);
    writer.write(bytes.data(), bytes.size());
  }

  /// What `tags` writes to `name`.
  std::string tags(const std::string& name, const std::string& options = "") {
    EXPECT_EQ(ortime("tags a.ortime -o " + name + ' ' + options), 0) << err;
    return read_file(name);
  }
};

TEST_F(Inspection, UsageErrorsNameTheFaultAndWhereToLook) {
  write_file("f", "");
  const std::pair<const char*, const char*> cases[] = {
      {"", "a command is missing"},
      {"\x1b[2J x", "'\\x1b[2J' is no command"},
      {"info --chunk-bytes 99999999999999999999 x", "is not an integer from 1 to 1073741824"},
      {"tags x --channel 4",
       "--channel: '4' is not an integer from 0 to 3\nTry 'ortime tags --help'"},
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

TEST_F(Inspection, TagsInEveryFormat) {
  write_tags({{0, 5}, {3, 258}, {1, 7}, {0, 5}});
  EXPECT_EQ(tags("t"), "channel,time_ps\n0,5\n3,258\n1,7\n0,5\n");
  EXPECT_EQ(tags("t.csv", "--to-ps 258 --channel 0 --channel 3,0"), "channel,time_ps\n0,5\n0,5\n");
  EXPECT_EQ(tags("t.csv", "--from-ps 258"), "channel,time_ps\n3,258\n");
  const std::string text =
      "{'descr': [('channel', '|u1'), ('time_ps', '<i8')], 'fortran_order': False, "
      "'shape': (2,), }";
  EXPECT_EQ(tags("t.NPY", "--from-ps 6 --to-ps 259"),
            std::string("\x93NUMPY\x01\x00\x76\x00", 10) + text +
                std::string(117 - text.size(), ' ') + '\n' +
                std::string("\3\2\1\0\0\0\0\0\0\1\7\0\0\0\0\0\0\0", 18));
  Tags many;
  std::string csv = "channel,time_ps\n";
  for (unsigned i = 0; i < 200'000; ++i) {  // more than are written at once
    many.push_back({static_cast<std::uint8_t>(i % 4), i * 1000});
    csv += std::to_string(i % 4) + ',' + std::to_string(i * 1000) + '\n';
  }
  write_tags(many);
  EXPECT_TRUE(tags("t", "--chunk-bytes 1000") == csv);
  EXPECT_EQ(tags("t.npy").size(), 128U + 9U * 200'000U);
  fs::rename("a.ortime", "tags");  // called like a command
  EXPECT_EQ(ortime("tags --channel 1 tags"), 0);
  EXPECT_TRUE(out.starts_with("channel,time_ps\n1,1000\n1,5000\n"));
}

TEST_F(Inspection, OutputsAreWholeOrAbsentAndNeverInputs) {
  write_tags({{0, 5}});
  const std::string before = read_file("a.ortime");
  fs::create_hard_link("a.ortime", "hard");
  fs::create_symlink("a.ortime", "link");
  fs::create_hard_link("a.ortime", "u.part");
  const std::pair<const char*, const char*> cases[] = {
      {"a.ortime --format csv", "is an input file"},
      {"hard", "is an input file"},
      {"link", "is an input file"},
      {"u", "is an input file"},
      {"/dev/full", "cannot write \"/dev/full\": No space left on device"},
      {"./", "Is a directory"},
      {"missing/t", "No such file or directory"},
      {"/dev/fd/99999999999", "cannot create"},  // not standard input
  };
  for (const auto& [output, error] : cases) {
    EXPECT_EQ(ortime("tags a.ortime -o " + std::string(output)), 1);
    EXPECT_TRUE(has(err, error)) << output << ": " << err;
    EXPECT_EQ(read_file("a.ortime"), before);
  }
  write_file("t.part", "left by one that was killed");
  write_file("t", "older");
  fs::permissions("t", fs::perms(0600));
  fs::create_symlink("t", "to_t");
  EXPECT_EQ(tags("to_t"), "channel,time_ps\n0,5\n");  // replaces what the link leads to
  EXPECT_EQ(read_file("t"), "channel,time_ps\n0,5\n");
  EXPECT_EQ(fs::status("t").permissions(), fs::perms(0600));
  // The recording and its links, the output and a link: nothing unfinished.
  EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), 6);
}

TEST_F(Inspection, InfoTellsChannelsInDisorder) {
  header.application = "\x1b[31m\xff\xc2\x9b ü\n";
  write_tags({{0, 10}, {1, 1}, {0, 40}, {0, 30}, {0, 30}});
  EXPECT_EQ(ortime("info a.ortime --chunk-bytes 8"), 0);
  EXPECT_TRUE(has(out, "\n  application=\"?[31m\\xff\\x9b ü\\n\"\n")) << out;
  EXPECT_TRUE(out.ends_with(R"(
decodable=true
tags=5
undecoded_bytes=0
channels:
  channel=0 tags=4 first_ps=10 last_ps=40 span_ps=30 rate_hz=100000000000.000000 shortest_interval_ps=-10 longest_interval_ps=30
  channel=1 tags=1 first_ps=1 last_ps=1 span_ps=0
  channel=2 tags=0
  channel=3 tags=0
)")) << out;
  write_file("bad", "no stream file");
  EXPECT_EQ(ortime("info --json bad a.ortime"), 1);
  EXPECT_EQ(err, "ortime: \"bad\": not an Orvo timing stream file\n");
  const auto files = nlohmann::json::parse(out)["files"];
  ASSERT_EQ(files.size(), 2U);
  EXPECT_EQ(files[0]["error"], "\"bad\": not an Orvo timing stream file");
  EXPECT_EQ(files[1]["channels"][0]["shortest_interval_ps"], -10);
  EXPECT_TRUE(files[1]["channels"][1]["rate_hz"].is_null());
}

TEST_F(Inspection, LocksAreDatedByTheTagBefore) {
  record("b.ortime", 4'000, kLostLock);
  EXPECT_EQ(ortime("info b.ortime --chunk-bytes 4096"), 0);
  EXPECT_TRUE(has(out, "\nlocks:\n  taken=2\n  dropped=1\n  skipped_bytes=26\n")) << out;
  EXPECT_TRUE(out.ends_with(R"(
  events:
    kind="locked" payload_offset_bytes=2 tags_before=0 detail="locked bits=16 drop_bytes=2 bit_offset=2 raw_bytes=4094"
    kind="sync_channel_mismatch" payload_offset_bytes=68511 tags_before=14336 time_ps=1115650189136 detail="drop sync channel mismatch ch=2 expected=0 record=1252 chunks_left=3"
    kind="locked" payload_offset_bytes=68535 tags_before=14336 time_ps=1115650189136 detail="locked bits=16 drop_bytes=24 bit_offset=2 raw_bytes=5193"
  events_left_out=0
)")) << out;

  inspection::LockHistory dated;
  dated.add({LockEvent::Kind::locked, 0, 1});
  dated.pass(Tags{{0, 7}, {1, 8}});
  EXPECT_EQ(dated.entries()[0].time_ps, 7);
  EXPECT_EQ(dated.entries()[0].next_ps, 8);
  inspection::LockHistory endless;
  for (int i = 0; i < 500; ++i) {
    endless.add({LockEvent::Kind::imbalanced});
    endless.add({LockEvent::Kind::locked});
  }
  EXPECT_EQ(endless.entries().size() + endless.left_out(), 1'000U);
  EXPECT_EQ(endless.dropped(), 500U);
}

TEST_F(Inspection, AnyTimesAreCountedOnce) {
  std::mt19937_64 random(1);
  Tags tags;
  for (int i = 0; i < 40'000; ++i) {
    tags.push_back({static_cast<std::uint8_t>(random() % 4),
                    static_cast<std::int64_t>(random() >> 3 >> random() % 61)});
  }
  write_tags(tags);
  EXPECT_EQ(ortime("info a.ortime"), 0);
  const std::string info = out;
  EXPECT_EQ(ortime("verify a.ortime --divider 1"), 2);
  const std::regex line("  ch([0-3]) count=([0-9]+ first_ps=[0-9]+ last_ps=[0-9]+ )");
  int found = 0;
  for (std::sregex_iterator it(out.begin(), out.end(), line), end; it != end; ++it, ++found) {
    EXPECT_TRUE(has(info, "  channel=" + it->str(1) + " tags=" + it->str(2))) << info << out;
  }
  EXPECT_EQ(found, 4);
}

TEST_F(Inspection, SkewIsThatOfTheNearestEvent) {
  for (const std::string skew_ps : {"248", "-248", "3000000", "-3000000"}) {
    for (const bool channel_0_first : {true, false}) {  // in the stream
      Tags tags;
      for (int i = 1; i <= 1'000; ++i) {
        const timing::TimeTag reference = {0, i * std::int64_t{10'000'000} + i % 2 * 8};
        const timing::TimeTag other = {1, reference.time_ps + std::stoi(skew_ps)};
        tags.push_back(channel_0_first ? reference : other);
        tags.push_back(channel_0_first ? other : reference);
      }
      write_tags(tags, timing::Mode::internal);
      EXPECT_EQ(ortime("info a.ortime"), 0);
      EXPECT_TRUE(has(out, " skew={\"count\":1000,\"mean_ps\":" + skew_ps +
                               ".0,\"median_ps\":" + skew_ps + ".0,\"standard_deviation_ps\":0.0}"))
          << out;
    }
  }
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
