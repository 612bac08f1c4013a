// The stream file container: what is written, what is refused, and tags in batches.
#include "orvo/timing/stream_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "support/decoding.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

using timing::Format;
using timing::StreamFileHeader;
using timing::StreamFileReader;
using timing::StreamFileWriter;

constexpr unsigned long kAll = std::numeric_limits<unsigned long>::max();

class StreamFiles : public testing::Test {
 protected:
  [[nodiscard]] std::string open_error(const std::string& bytes) {
    write_file(path, bytes);
    return error_of([&] { reader.open(path); });
  }

  /// A raw64 file with one tag a microsecond, channels in turn.
  void write_tags(std::size_t count) {
    StreamFileHeader header;
    header.stream_format = Format::raw64;
    Bytes payload;
    tags.clear();
    for (std::uint64_t i = 0; i < count; ++i) {
      tags.push_back({static_cast<std::uint8_t>(i % 4), static_cast<std::int64_t>(i * 1'000'000)});
      put_big_endian(payload, (i % 4) << 61 | i * 1'000'000, 8);
    }
    StreamFileWriter writer;
    writer.open(path, header);
    writer.write(payload.data(), payload.size());
  }

  /// Tags `first` to `last`, not included, of the file written.
  [[nodiscard]] Tags tags_from(std::size_t first, std::size_t last) const {
    return {tags.data() + first, tags.data() + last};
  }

  ScratchDirectory scratch;
  std::string path = scratch.file("a b.ortime");
  StreamFileReader reader;
  Tags tags;
};

TEST_F(StreamFiles, WriterFramesHeaderAndPayload) {
  StreamFileHeader header;
  header.created_utc = "now";
  header.application = std::string(300, 'a');
  const std::string text = timing::detail::stream_header_to_json(header);
  ASSERT_EQ(text.size() >> 8, 2u);
  const std::string front = std::string("ORTIME1\n") + static_cast<char>(text.size() & 0xFF) +
                            std::string("\2\0\0", 3) + text;

  StreamFileWriter writer;
  writer.open(path, header);
  const Bytes first = {0, 1, 255};
  const Bytes second(3 << 20, 'x');
  writer.write(first.data(), first.size());
  writer.write(nullptr, 0);
  EXPECT_EQ(error_of([&] { writer.write(nullptr, 1); }), "StreamFileWriter: null data [-1]");
  writer.write(second.data(), second.size());
  writer.close();
  EXPECT_EQ(read_file(path), front + std::string("\0\1\377", 3) + std::string(3 << 20, 'x'));

  writer.open(path, header);  // truncates
  writer.open(scratch.file("other"), header);
  EXPECT_EQ(read_file(path), front);
}

TEST_F(StreamFiles, WriterFailuresAreToldWhereTheyAreMet) {
  StreamFileWriter writer;
  const std::string missing = scratch.file("missing/file");
  EXPECT_EQ(error_of([&] { writer.open(missing, {}); }),
            "StreamFileWriter: cannot open " + missing + " [-2]");
  const Bytes bytes(2 << 20);
  EXPECT_EQ(error_of([&] { writer.write(bytes.data(), 1); }), "StreamFileWriter: not open [-6]");

  StreamFileHeader large;
  large.application = std::string(2 << 20, 'a');
  EXPECT_EQ(error_of([&] { writer.open("/dev/full", large); }),
            "StreamFileWriter: failed to write header [-2]");

  writer.open("/dev/full", {});
  writer.write(bytes.data(), 10);  // waits in the buffer
  EXPECT_EQ(error_of([&] { writer.write(bytes.data(), bytes.size()); }),
            "StreamFileWriter: payload write failed [-2]");
  EXPECT_EQ(error_of([&] { writer.write(bytes.data(), 1); }), "StreamFileWriter: not open [-6]");

  writer.open("/dev/full", {});
  writer.write(bytes.data(), 10);
  writer.close();  // a failure met here stays silent
  writer.open(path, {});
  writer.write(bytes.data(), 10);
}

TEST_F(StreamFiles, ReaderRefusesWhatIsNoStreamFile) {
  EXPECT_EQ(error_of([&] { reader.open(scratch.file("missing")); }),
            "StreamFileReader: cannot open " + scratch.file("missing") + " [-2]");
  EXPECT_EQ(error_of([&] { reader.open(scratch.path().string()); }),
            "StreamFileReader: truncated magic [-2]");  // a directory
  const std::string good = std::string("ORTIME1\n\5\0\0\0", 12) + "{   }";
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_EQ(open_error(good.substr(0, size)),
              size < 8    ? "StreamFileReader: truncated magic [-2]"
              : size < 12 ? "stream file: truncated header length [-2]"
                          : "StreamFileReader: truncated JSON header [-2]")
        << size;
  }
  for (std::size_t i = 0; i < 8; ++i) {
    std::string bad = good;
    bad[i] ^= 3;
    EXPECT_EQ(open_error(bad), "StreamFileReader: not an Orvo timing stream file [-4]") << i;
  }
  EXPECT_EQ(open_error("ORTIME1\n\xFF\xFF\xFF\xFF{}"),
            "StreamFileReader: truncated JSON header [-2]");
  EXPECT_EQ(open_error(good), "no error");
}

TEST_F(StreamFiles, ReaderAcceptsTheOlderMagicAndAnEmptyHeader) {
  for (const char* magic : {"ORTIME1\n", "OTSTRM1\n"}) {
    EXPECT_EQ(open_error(magic + std::string(4, '\0')), "no error");
    EXPECT_EQ(reader.header().stream_format, Format::packed_delta);
    EXPECT_TRUE(reader.decode_next_tags(10, 10).empty());
  }
  const std::string text = R"({"tdl_index":77,"x":")" + std::string(300'000, 'x') + "\"}";
  std::string length;
  for (unsigned i = 0; i < 4; ++i) length += static_cast<char>(text.size() >> (8 * i));
  EXPECT_EQ(open_error("OTSTRM1\n" + length + text), "no error");
  EXPECT_EQ(reader.header().tdl_index, 77);
}

TEST_F(StreamFiles, ReaderWithoutAFileIsNotOpen) {
  const auto decode = [&] { (void)reader.decode_next_tags(1, 1); };
  EXPECT_TRUE(reader.decode_next_tags(0, 1).empty());
  EXPECT_EQ(error_of(decode), "StreamFileReader: not open [-6]");

  write_tags(9);
  reader.open(path);
  EXPECT_EQ(reader.decode_next_tags(1, 1000), tags_from(0, 1));
  EXPECT_NE(open_error("not a stream file at all"), "no error");
  EXPECT_EQ(error_of(decode), "StreamFileReader: not open [-6]");  // no tag of the earlier file

  write_tags(9);
  reader.open(path);
  EXPECT_EQ(reader.decode_next_tags(kAll, 1000), tags_from(0, 9));
}

TEST_F(StreamFiles, TagsDoNotDependOnBatchOrChunk) {
  write_tags(103);
  for (const unsigned long chunk_bytes : {0ul, 1ul, 7ul, 8ul, 200ul, 824ul, kAll}) {
    for (const unsigned long max_tags : {1ul, 10ul, 103ul, 104ul, kAll}) {
      SCOPED_TRACE(testing::Message() << chunk_bytes << " bytes, " << max_tags << " tags");
      reader.open(path);
      std::size_t done = 0;
      while (done < tags.size()) {
        const std::size_t batch = std::min<std::size_t>(max_tags, tags.size() - done);
        ASSERT_EQ(reader.decode_next_tags(max_tags, chunk_bytes), tags_from(done, done + batch));
        done += batch;
      }
      EXPECT_TRUE(reader.decode_next_tags(max_tags, chunk_bytes).empty());
      EXPECT_TRUE(reader.decode_next_tags(max_tags, chunk_bytes).empty());
    }
  }
}

TEST_F(StreamFiles, SpansHoldWhatIsPendingBeforeMoreIsRead) {
  write_tags(30);
  reader.open(path);
  const auto next = [&] {
    const std::span<const timing::TimeTag> span = reader.next_tags(10, 200);  // 25 tags a chunk
    return Tags(span.begin(), span.end());
  };
  EXPECT_EQ(next(), tags_from(0, 10));
  EXPECT_EQ(next(), tags_from(10, 20));
  EXPECT_EQ(next(), tags_from(20, 25));
  EXPECT_EQ(next(), tags_from(25, 30));
  EXPECT_TRUE(next().empty());
}

}  // namespace
}  // namespace orvo::tests
