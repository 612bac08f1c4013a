// The stream file container: what is written, what is refused, and tags in batches.
#include "orvo/timing/stream_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/decoding.h"
#include "support/error_of.h"
#include "support/record_writer.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

using timing::StreamFileHeader;

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
  const std::string text = timing::detail::stream_header_to_json(header);
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
  const auto open_error = [&](const std::string& to, std::size_t bytes) {
    StreamFileHeader header;
    header.application = std::string(bytes, 'a');
    return error_of([&] { writer.open(to, header); });
  };
  const auto write_error = [&] { return error_of([&] { writer.write(nullptr, 0); }); };
  const char* const not_open = "StreamFileWriter: not open [-6]";
  const std::string missing = scratch.file("missing/file");
  EXPECT_EQ(open_error(missing, 0), "StreamFileWriter: cannot open " + missing + " [-2]");
  EXPECT_EQ(write_error(), not_open);
  EXPECT_EQ(open_error("/dev/full", 0), "StreamFileWriter: failed to write header [-2]");
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
