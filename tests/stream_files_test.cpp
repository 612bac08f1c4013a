// Stream files: a header's text, exact when written and tolerant when read; what is written, what
// is refused, and tags in batches.
#include "orvo/timing/stream_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/decoding.h"
#include "support/record_writer.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

using timing::StreamFileHeader;
using timing::detail::stream_header_from_json;
using timing::detail::stream_header_to_json;

/// The fixed form; every member differs from its default.
constexpr const char* kText =
    R"({"file_type":"orvo_timing_raw_stream_capture","schema_version":1,)"
    R"("created_utc":"now","application":"a\tb\"c\\d\ne\rf )"
    "\xC3\xA9\","
    R"("device_product":"product","device_serial":"s/n 1","device_port":"/dev/ttyUSB0",)"
    R"("stream_format":"delta32","mode":"internal","stream_transport":"usb_async",)"
    R"("raw64_tag_format":"Raw_CF","channel_mask":5,"tdl_index":255,)"
    R"("packed_delta_config":{"delta_bits":31,"quantum_ps":65535}})";

TEST(StreamHeader, ReadsAnyTextTolerantly) {
  const struct {
    const char *text, *member;  // as it is written again
  } cases[] = {
      {kText, kText},
      {"", R"("stream_format":"packed_delta","mode":"external","stream_transport":"usb")"},
      {R"("mode" : "Internal")", R"("mode":"internal")"},
      {R"("mode":1,"x":"internal")", R"("mode":"external")"},  // the next quoted text is x
      {R"("stream_format":"PackedDelta")", R"("stream_format":"packed_delta")"},
      {R"("stream_format":"raw_cf")", R"("stream_format":"raw64")"},
      {R"("stream_transport":"USB-Async")", R"("stream_transport":"usb_async")"},
      {R"("stream_transport":"serial")", R"("stream_transport":"uart")"},
      {R"("channel_mask":31,"tdl_index":257)", R"("channel_mask":15,"tdl_index":1)"},
      {R"("raw64_tag_format":"","mode":"internal")", R"("raw64_tag_format":"raw_cf")"},
      {R"("application":"\r\t\n\"\\\/\u00e9","application":"2")",
       R"("application":"\r\t\n\"\\/u00e9")"},
      {R"("application":"v\")", R"("application":"")"},
      {R"("application":)", R"("application":"")"},
      {"\"quantum_ps\": \t\n\v\f\r0075}", R"("quantum_ps":75)"},
      {R"("quantum_ps":18446744073709551618)", R"("quantum_ps":2)"},  // modulo 2^64
      {R"("quantum_ps":-7)", R"("quantum_ps":8)"},
  };
  for (const auto& c : cases) {
    const std::string written = stream_header_to_json(stream_header_from_json(c.text));
    EXPECT_NE(written.find(c.member), std::string::npos) << c.text << " became " << written;
  }
  EXPECT_EQ(stream_header_from_json(R"("channel_mask":31)").channel_mask, 15);
}

TEST(StreamHeader, ValuesThatCannotStandAreReplacedWhenWritten) {
  StreamFileHeader header;
  header.channel_mask = 0xFF;
  header.application = "\x01\x1F\x7F";
  header.raw64_tag_format.clear();
  const std::regex expected(
      R"(.*"created_utc":"\d{4}(-\d\d){2}T\d\d(:\d\d){2}\.\d{6}Z","application":"\?\?\x7F",.*)"
      R"("raw64_tag_format":"ps","channel_mask":15,.*)");
  const std::string text = stream_header_to_json(header);
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

constexpr unsigned long kAll = ~0UL;

class StreamFiles : public testing::Test {
 protected:
  /// Opens a raw64 file with one tag a microsecond, channels in turn.
  void open_tags(unsigned count) {
    StreamFileHeader header;
    header.stream_format = timing::Format::raw64;
    Bytes payload;
    for (std::uint64_t i = 0; i < count; ++i) put_big_endian(payload, i % 4 << 61 | i * 1000000, 8);
    write_stream(header, payload);
  }

  /// The next tags, and what the tags of that file from `first` on must be.
  std::string next(unsigned long max_tags, unsigned long chunk_bytes = 1000) {
    return text_of(reader.decode_next_tags(max_tags, chunk_bytes));
  }
  static std::string tags(std::uint64_t first, std::uint64_t end) {
    std::string text;
    for (; first < end; ++first) {
      text += std::to_string(first % 4) + ':' + std::to_string(first * 1000000) + ' ';
    }
    return text;
  }

  void write_stream(const StreamFileHeader& header, const Bytes& payload) {
    writer.open(path, header);
    writer.write(payload.data(), payload.size());
    writer.close();
    reader.open(path);
  }

  ScratchDirectory scratch;
  std::string path = scratch.file("a b.ortime");
  timing::StreamFileReader reader;
  timing::StreamFileWriter writer;
};

TEST_F(StreamFiles, WriterFramesHeaderAndPayload) {
  StreamFileHeader header;
  header.created_utc = "now";
  header.application = std::string(0x20000, 'a');
  const std::string text = stream_header_to_json(header);
  ASSERT_EQ(text.size(), 0x20157U);
  const std::string front = "ORTIME1\n" + std::string("\x57\1\2\0", 4) + text;
  writer.open(path, header);
  const Bytes bytes(3 << 20, 'x');
  writer.write(bytes.data(), 3);
  writer.write(nullptr, 0);
  EXPECT_EQ(error_of([&] { writer.write(nullptr, 1); }), "StreamFileWriter: null data [-1]");
  writer.write(bytes.data(), bytes.size());
  writer.write(bytes.data(), 4);
  writer.open(scratch.file("other"), header);  // writes out what is gathered
  EXPECT_EQ(read_file(path), front + std::string((3 << 20) + 7, 'x'));
  writer.open(path, header);  // truncates
  writer.close();
  EXPECT_EQ(read_file(path), front);
  reader.open(path);
  EXPECT_EQ(reader.header().application, header.application);
}

TEST_F(StreamFiles, WriterGathersAMebibyteAndReportsWhatFails) {
  const Bytes piece(8192, 'x');
  writer.open(path, {});
  const std::uint64_t front = std::filesystem::file_size(path);
  std::vector<std::uint64_t> sizes = {0};
  for (std::uint64_t written = 0; written < 4 << 20; written += piece.size()) {
    writer.write(piece.data(), piece.size());
    const std::uint64_t size = std::filesystem::file_size(path) - front;
    if (size != sizes.back()) sizes.push_back(size);
  }
  EXPECT_EQ(sizes, (std::vector<std::uint64_t>{0, 1 << 20, 2 << 20, 3 << 20}));
  writer.flush();
  EXPECT_EQ(std::filesystem::file_size(path) - front, 4U << 20);
  const FileSizeLimit limit(4096);
  writer.open(path, {});
  writer.write(piece.data(), piece.size());
  EXPECT_EQ(error_of([&] { writer.close(); }), "StreamFileWriter: payload write failed [-2]");
  writer.close();  // was told
}

TEST_F(StreamFiles, WriterOpensAllOrNothing) {
  const auto open_error = [&](const std::string& to) {
    return error_of([&] { writer.open(to, {}); });
  };
  const auto write_error = [&] { return error_of([&] { writer.write(nullptr, 0); }); };
  const char* const not_open = "StreamFileWriter: not open [-6]";
  const std::string missing = scratch.file("missing/file");
  EXPECT_EQ(open_error(missing), "StreamFileWriter: cannot open " + missing + " [-2]");
  EXPECT_EQ(write_error(), not_open);
  EXPECT_EQ(open_error("/dev/full"), "StreamFileWriter: failed to write header [-2]");
  EXPECT_EQ(write_error(), not_open);
}

// What is refused leaves nothing of the earlier file.
TEST_F(StreamFiles, ReaderRefusesWhatIsNoStreamFile) {
  const std::string not_open = "StreamFileReader: not open [-6]";
  const auto next_error = [&] { return error_of([&] { next(1); }); };
  EXPECT_EQ(next(0), "");
  EXPECT_TRUE(reader.next_tags(0, 1).empty());
  EXPECT_EQ(next_error(), not_open);
  const std::string missing = scratch.file("missing"), magic = "ORTIME1\n";
  EXPECT_EQ(error_of([&] { reader.open(missing); }),
            "StreamFileReader: cannot open " + missing + " [-2]");
  EXPECT_EQ(error_of([&] { reader.open(scratch.path().string()); }),
            "StreamFileReader: truncated magic [-2]");
  const struct {
    std::string bytes, error;
  } cases[] = {
      {"", "StreamFileReader: truncated magic [-2]"},
      {"ORTIME1", "StreamFileReader: truncated magic [-2]"},
      {"ORTIME2\n", "StreamFileReader: not an Orvo timing stream file [-4]"},
      {magic, "stream file: truncated header length [-2]"},
      {magic + std::string("\5\0\0", 3), "stream file: truncated header length [-2]"},
      {magic + std::string("\5\0\0\0{  }", 8), "StreamFileReader: truncated JSON header [-2]"},
      {magic + "\xFF\xFF\xFF\xFF{}", "StreamFileReader: truncated JSON header [-2]"},
      {magic + std::string("\5\0\0\0{   }", 9), "no error"},
      {"OTSTRM1\n" + std::string(4, '\0'), "no error"},  // the older magic, a header of nothing
  };
  for (const auto& [bytes, error] : cases) {
    open_tags(9);
    EXPECT_EQ(next(1), tags(0, 1));
    write_file(path, bytes);
    EXPECT_EQ(error_of([&] { reader.open(path); }), error);
    EXPECT_EQ(next_error(), error == "no error" ? error : not_open);
  }
  EXPECT_EQ(reader.header().stream_format, timing::Format::packed_delta);
}

TEST_F(StreamFiles, TagsDoNotDependOnBatchOrChunk) {
  for (const unsigned long chunk_bytes : {0ul, 1ul, 7ul, 200ul, 824ul, kAll}) {
    for (const unsigned long max_tags : {1ul, 10ul, 103ul, kAll}) {
      SCOPED_TRACE(testing::Message() << chunk_bytes << " bytes, " << max_tags << " tags");
      open_tags(103);
      for (unsigned long at = 0; at < 103; at += std::min(103UL, max_tags)) {
        ASSERT_EQ(next(max_tags, chunk_bytes), tags(at, at + std::min(max_tags, 103 - at)));
      }
      EXPECT_EQ(next(max_tags, chunk_bytes), "");
    }
  }
}

TEST_F(StreamFiles, ProgressCountsWhatCannotBeDecoded) {
  StreamFileHeader header;
  header.delta_bits = 99;
  write_stream(header, Bytes(5000));
  EXPECT_EQ(reader.read_bytes(), reader.payload_start_bytes());
  EXPECT_EQ(next(1), "");
  EXPECT_EQ(reader.read_bytes(), std::filesystem::file_size(path));
  EXPECT_EQ(reader.undecoded_bytes(), 0U);
}

TEST_F(StreamFiles, ListenerThatThrowsLosesNoTag) {
  RecordWriter records;  // of channel 0: a lock and two events, then a record that ends the lock
  records.sync(0, 1000);
  records.data(0, 0);
  records.data(0, 1);
  records.data(1, 0);
  StreamFileHeader header;
  header.channel_mask = 1;
  write_stream(header, records.bytes);
  reader.on_lock_event = [](const timing::LockEvent& event) {
    if (timing::drops_lock(event.kind)) throw std::runtime_error("listener");
  };
  constexpr unsigned long kLockBytes = 12;
  EXPECT_EQ(next(1, kLockBytes), "0:8000 ");
  EXPECT_THROW(next(1, kLockBytes), std::runtime_error);
  EXPECT_EQ(next(1, kLockBytes), "0:8008 ");
}

// 17 MiB in one chunk are read in two pieces; what is written later is read after the end.
TEST_F(StreamFiles, LargeChunksAndAFileThatGrows) {
  const unsigned count = (17 << 20) / 8;
  open_tags(count);
  EXPECT_EQ(reader.decode_next_tags(kAll, kAll).size(), count);
  EXPECT_EQ(next(1), "");
  std::ofstream(path, std::ios::app | std::ios::binary).write("\0\0\0\0\0\0\0\7", 8);
  EXPECT_EQ(next(1), "0:7 ");
}

}  // namespace
}  // namespace orvo::tests
