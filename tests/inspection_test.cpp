// Stream files looked into: `info` and `tags`.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/lock_history.h"
#include "orvo/timing/stream_files.h"
#include "support/decoding.h"
#include "support/error_of.h"
#include "support/packed_streams.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

using inspection::TagFormat;
using inspection::TagsOptions;
using timing::LockEvent;
using timing::StreamFileHeader;

using Time = std::optional<std::int64_t>;

class Inspection : public testing::Test {
 protected:
  /// A raw64 file of picosecond records.
  void write_tags(const Tags& tags, StreamFileHeader header = {}) {
    header.stream_format = timing::Format::raw64;
    Bytes payload;
    for (const auto& [channel, time_ps] : tags) {
      put_big_endian(payload, std::uint64_t{channel} << 61 | static_cast<std::uint64_t>(time_ps),
                     8);
    }
    write_stream(header, payload);
  }
  void write_stream(const StreamFileHeader& header, const Bytes& payload) {
    timing::StreamFileWriter writer;
    writer.open(file, header);
    writer.write(payload.data(), payload.size());
  }

  /// What `tags` writes to `name`, a file of the scratch directory.
  std::string tags(const std::string& name, TagFormat format = TagFormat::csv, Time from_ps = {},
                   Time to_ps = {}, std::uint8_t channel_mask = 0x0F,
                   std::uint64_t chunk_bytes = 1000) {
    const TagsOptions options = {file,    0,     scratch.file(name), format, channel_mask,
                                 from_ps, to_ps, chunk_bytes};
    EXPECT_EQ(inspection::run(options), inspection::kExitSuccess);
    return read_file(scratch.file(name));
  }

  /// What `info` prints of the file.
  std::string info(bool json, std::uint64_t chunk_bytes) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(inspection::run(inspection::InfoOptions{{file}, json, chunk_bytes}), 0);
    return testing::internal::GetCapturedStdout();
  }

  ScratchDirectory scratch;
  std::string file = scratch.file("a.ortime");
};

TEST_F(Inspection, TagsInEveryFormat) {
  write_tags({{0, 5}, {3, 258}, {1, 7}, {0, 5}});
  EXPECT_EQ(tags("t"), "channel,time_ps\n0,5\n3,258\n1,7\n0,5\n");
  EXPECT_EQ(tags("t", TagFormat::csv, {}, 258, 0b1001), "channel,time_ps\n0,5\n0,5\n");
  EXPECT_EQ(tags("t", TagFormat::csv, 258), "channel,time_ps\n3,258\n");
  const std::string header =
      "{'descr': [('channel', '|u1'), ('time_ps', '<i8')], 'fortran_order': False, "
      "'shape': (2,), }";
  EXPECT_EQ(tags("t", TagFormat::npy, 6, 259),
            std::string("\x93NUMPY\x01\x00\x76\x00", 10) + header +
                std::string(117 - header.size(), ' ') + '\n' +
                std::string("\3\2\1\0\0\0\0\0\0\1\7\0\0\0\0\0\0\0", 18));
  Tags many;
  std::string csv = "channel,time_ps\n";
  for (unsigned i = 0; i < 200'000; ++i) {  // more than are written at once
    many.push_back({static_cast<std::uint8_t>(i % 4), i * 1000});
    csv += std::to_string(i % 4) + ',' + std::to_string(i * 1000) + '\n';
  }
  write_tags(many);
  EXPECT_TRUE(tags("t") == csv);
  EXPECT_EQ(tags("t", TagFormat::npy, {}, {}, 0x0F, 1 << 20).size(), 128U + 9U * 200'000U);
}

TEST_F(Inspection, OutputsAreWholeOrAbsentAndNeverInputs) {
  write_tags({{0, 5}});
  const std::string before = read_file(file);
  const auto path = [&](const char* name) { return scratch.file(name); };
  std::filesystem::create_hard_link(file, path("hard"));
  std::filesystem::create_symlink(file, path("link"));
  std::filesystem::create_hard_link(file, path("u.part"));
  const struct {
    std::string output, error;
  } cases[] = {
      {file, "is an input file"},
      {path("hard"), "is an input file"},
      {path("link"), "is an input file"},
      {path("u"), "is an input file"},
      {"/dev/full", "cannot write \"/dev/full\": No space left on device"},
      {path(""), "Is a directory"},
      {path("missing/t"), "No such file or directory"},
      {"/dev/fd/99999999999", "cannot create"},  // not standard input
  };
  TagsOptions options;
  options.path = file;
  for (const auto& [output, error] : cases) {
    options.output = output;
    const std::string told = error_of([&] { return inspection::run(options); });
    EXPECT_NE(told.find(error), std::string::npos) << output << ": " << told;
    EXPECT_EQ(read_file(file), before);
  }
  write_file(path("t.part"), "left by one that was killed");
  write_file(path("t"), "older");
  std::filesystem::permissions(path("t"), std::filesystem::perms(0600));
  std::filesystem::create_symlink(path("t"), path("to_t"));
  EXPECT_EQ(tags("to_t"), "channel,time_ps\n0,5\n");  // replaces what the link leads to
  EXPECT_EQ(read_file(path("t")), "channel,time_ps\n0,5\n");
  EXPECT_EQ(std::filesystem::status(path("t")).permissions(), std::filesystem::perms(0600));
  std::size_t left = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(scratch.path())) {
    ++left;
  }
  EXPECT_EQ(left, 6U);  // the recording and its links, the output and a link: nothing unfinished
}

TEST_F(Inspection, InfoTellsChannelsInDisorder) {
  StreamFileHeader header;
  header.application = "\x1b[31m\xff\xc2\x9b ü\n";
  write_tags({{0, 10}, {1, 1}, {0, 40}, {0, 30}, {0, 30}}, header);
  const auto json = nlohmann::json::parse(info(true, 8))["files"][0];
  const std::string text = info(false, 8);
  EXPECT_TRUE(text.ends_with(
      "\ntags=5\nundecoded_bytes=0\nchannels:\n"
      "  channel=0 tags=4 first_ps=10 last_ps=40 span_ps=30 rate_hz=100000000000.000000"
      " shortest_interval_ps=-10 longest_interval_ps=30\n"
      "  channel=1 tags=1 first_ps=1 last_ps=1 span_ps=0\n"
      "  channel=2 tags=0\n  channel=3 tags=0\n"))
      << text;
  EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
  EXPECT_TRUE(json["channels"][1]["rate_hz"].is_null());
  EXPECT_EQ(json["channels"][0]["shortest_interval_ps"], -10);
  EXPECT_FALSE(json.contains("locks"));

  write_file(scratch.file("bad"), "no stream file");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(inspection::run(inspection::InfoOptions{{scratch.file("bad"), file}, true}),
            inspection::kExitError);
  const std::string error = '"' + scratch.file("bad") + "\": not an Orvo timing stream file";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ortime: " + error + '\n');
  const auto document = nlohmann::json::parse(testing::internal::GetCapturedStdout());
  EXPECT_EQ(document["files"].size(), 2U);
  EXPECT_EQ(document["files"][0]["error"], error);
  EXPECT_EQ(document["files"][1]["tags"], 5);
}

TEST_F(Inspection, LocksAreDatedByTheTagBefore) {
  PackedStreams streams(7);
  StreamFileHeader header = streams.header();
  write_stream(header, streams.stream(header, 300'000, 2'000, false));
  timing::StreamFileReader reader;
  std::vector<LockEvent> events;
  reader.on_lock_event = [&](const LockEvent& event) { events.push_back(event); };
  reader.open(file);
  const Tags all = reader.decode_next_tags(~0UL, 4096);
  EXPECT_EQ(reader.read_bytes(), std::filesystem::file_size(file));
  const auto locks = nlohmann::json::parse(info(true, 4096))["files"][0]["locks"];
  ASSERT_GT(locks["dropped"], 3U);
  ASSERT_EQ(locks["events"].size() + locks["events_left_out"].get<std::size_t>(), events.size());
  for (std::size_t i = 0; i < locks["events"].size(); ++i) {
    const nlohmann::json& event = locks["events"][i];
    const std::uint64_t before = events[i].tags_before;
    EXPECT_EQ(event["payload_offset_bytes"], events[i].payload_offset_bytes);
    EXPECT_EQ(event["detail"], describe(events[i], header));
    EXPECT_EQ(event["time_ps"].is_null(), before == 0);
    EXPECT_TRUE(before == 0 || event["time_ps"] == all[before - 1].time_ps);
  }

  inspection::LockHistory endless;
  for (unsigned i = 0; i < 1'000; ++i) {
    endless.add({i % 2 == 0 ? LockEvent::Kind::locked : LockEvent::Kind::imbalanced, 0, 0, 3});
  }
  EXPECT_EQ(endless.entries().size() + endless.left_out(), 1'000U);
  EXPECT_EQ(endless.dropped(), 500U);
  inspection::LockHistory dated;
  dated.pass(Tags{{0, 5}, {1, 6}});
  dated.add({LockEvent::Kind::imbalanced, 0, 2});
  dated.add({LockEvent::Kind::locked, 0, 3});
  dated.pass(Tags{{0, 7}, {1, 8}});
  EXPECT_EQ(dated.entries()[0].time_ps, 6);
  EXPECT_EQ(dated.entries()[0].next_ps, 7);
  EXPECT_EQ(dated.entries()[1].time_ps, 7);
  EXPECT_EQ(dated.entries()[1].next_ps, 8);
}

}  // namespace
}  // namespace orvo::tests
