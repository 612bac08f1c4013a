// Raw64 and delta32 records to timestamps.
#include <gtest/gtest.h>

#include "orvo/timing/fine_table.h"
#include "support/decoding.h"

namespace orvo::tests {
namespace {

using timing::Format;
using timing::Mode;
using timing::StreamDecoder;
using timing::StreamFileHeader;

constexpr std::int64_t kWrapPs = 14'315'125'997'568;

StreamFileHeader header_for(Format format, const char* raw64_tag_format = "ps") {
  StreamFileHeader header;
  header.stream_format = format;
  header.raw64_tag_format = raw64_tag_format;
  return header;
}

std::uint64_t ps_record(unsigned channel, std::int64_t time_ps) {
  return std::uint64_t{channel} << 61 | static_cast<std::uint64_t>(time_ps);
}

std::uint64_t coarse_fine_record(unsigned channel, std::uint64_t coarse, unsigned fine) {
  return std::uint64_t{channel} << 61 | 0xA5C3ULL << 45 | coarse << 13 | fine;
}

struct Raw64Case {
  const char* name;
  const char* tag_format;
  std::vector<std::uint64_t> records;
  Tags tags;
};

TEST(Raw64, RecordsBecomeTags) {
  const std::vector<Raw64Case> cases = {
      {"clock wrap is counted on its channel alone",
       "ps",
       {ps_record(1, 14'000'000'000'000), ps_record(2, 5), ps_record(1, 100'000'000'000)},
       {{1, 14'000'000'000'000}, {2, 5}, {1, 100'000'000'000 + kWrapPs}}},
      {"half a wrap back is no wrap",
       "ps",
       {ps_record(0, kWrapPs / 2 + 7), ps_record(0, 7), ps_record(3, kWrapPs / 2 + 8),
        ps_record(3, 7)},
       {{0, kWrapPs / 2 + 7}, {0, 7}, {3, kWrapPs / 2 + 8}, {3, 7 + kWrapPs}}},
      {"times are modulo the wrap", "", {ps_record(0, kWrapPs + 3)}, {{0, 3}}},
      {"coarse periods less fine time",
       "RAW_CF",
       {coarse_fine_record(0, 10, 0), coarse_fine_record(0, 10, 1), coarse_fine_record(2, 10, 181),
        coarse_fine_record(3, 0, 8191)},
       {{0, 33'330}, {0, 33'311}, {2, 33'330 - 3332}, {3, -3332}}},
      {"coarse wrap",
       "raw_cf",
       {coarse_fine_record(1, 0xFFFFFFFF, 0), coarse_fine_record(1, 1, 0),
        coarse_fine_record(0, 1U << 31, 0), coarse_fine_record(0, 0, 0)},
       {{1, 0xFFFFFFFFLL * 3333}, {1, 0x100000001LL * 3333}, {0, (1LL << 31) * 3333}, {0, 0}}},
      {"the other layout is no record", "ps", {coarse_fine_record(0, 10, 0)}, {}},
  };
  for (const Raw64Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes;
    for (const std::uint64_t record : c.records) {
      put_big_endian(bytes, record, 8);
    }
    for (const std::size_t chunk_bytes : {1U, 3U, 8U, 1000U}) {
      StreamDecoder decoder(header_for(Format::raw64, c.tag_format));
      EXPECT_EQ(feed_in_chunks(decoder, bytes, chunk_bytes), c.tags) << chunk_bytes;
    }
  }
}

TEST(Raw64, FindsRecordsBehindForeignBytes) {
  StreamDecoder decoder(header_for(Format::raw64));
  Bytes bytes = {0xFF, 0xFF, 0xFF};
  put_big_endian(bytes, ps_record(2, 0x0FEDCBA98765), 8);
  bytes.insert(bytes.end(), {0xFF, 1, 2, 3});
  EXPECT_EQ(feed(decoder, bytes), (Tags{{2, 0x0FEDCBA98765 - kWrapPs}}));
  EXPECT_EQ(decoder.input_buffer.size(), 4U);
}

TEST(FineTable, RisesByEighteenAndAHalfPicosecondsToItsCap) {
  const std::vector<std::int64_t> table = timing::detail::default_fine_table();
  ASSERT_EQ(table.size(), 8192U);
  EXPECT_EQ(std::vector<std::int64_t>(table.begin(), table.begin() + 5),
            (std::vector<std::int64_t>{0, 19, 37, 56, 74}));
  EXPECT_EQ(table[180], 3330);
  EXPECT_EQ(table[181], 3332);
  EXPECT_EQ(table[8191], 3332);
}

// Delta32 words.
constexpr std::uint32_t kMarker = 0xEB5A55AA;
constexpr std::uint32_t control(unsigned field, std::uint32_t payload) {
  return 1U << 31 | field << 29 | 5U << 25 | payload;
}
constexpr std::uint32_t overflow(std::uint32_t count) { return control(0, count); }
constexpr std::uint32_t time_low(std::uint32_t bits) { return control(1, bits); }
constexpr std::uint32_t time_high(std::uint32_t bits) { return control(2, bits); }
constexpr std::uint32_t event(unsigned channel, std::uint32_t payload) {
  return channel << 29 | 10U << 25 | payload;
}
constexpr std::int64_t kPeriod = 1LL << 25;  // that an overflow word counts
constexpr std::int64_t kTicks = 1LL << 41;   // of a base time
constexpr std::int64_t kExcess = 1'078'036'791'296;

struct Delta32Case {
  const char* name;
  std::vector<std::uint32_t> words;
  Tags tags;
};

// Overflow words and an event that step `ps` on.
std::vector<std::uint32_t> step(unsigned channel, std::int64_t ps) {
  std::vector<std::uint32_t> words;
  std::int64_t periods = ps / kPeriod;
  for (; periods > 0xFFFF; periods -= 0xFFFF) {
    words.push_back(overflow(0xFFFF));
  }
  words.push_back(overflow(static_cast<std::uint32_t>(periods)));
  words.push_back(event(channel, static_cast<std::uint32_t>(ps % kPeriod)));
  return words;
}

std::vector<std::uint32_t> operator+(std::vector<std::uint32_t> a,
                                     const std::vector<std::uint32_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const std::vector<std::uint32_t> kBase1000 = {kMarker, time_low(1000), time_high(0)};

TEST(Delta32, WordsBecomeTags) {
  const std::vector<Delta32Case> cases = {
      {"base, then steps",
       kBase1000 + std::vector{event(1, 7), event(1, 5), overflow(2), event(1, 1)},
       {{1, 1007}, {1, 1012}, {1, 1013 + 2 * kPeriod}}},
      {"the base serves one event", kBase1000 + std::vector{event(1, 7), event(2, 7)}, {{1, 1007}}},
      {"no history, no base: dropped with its overflow",
       kBase1000 + std::vector{event(0, 0), overflow(3), event(1, 7), event(0, 1)},
       {{0, 1000}, {0, 1001}}},
      {"time-high carries bits 25 to 40",
       {kMarker, time_low(1), time_high(0xFFFF), event(0, 0)},
       {{0, 0xFFFF * kPeriod + 1}}},
      {"time-high with a bit above 15 loses",
       {kMarker, time_low(1), time_high(0x10000), event(0, 0)},
       {}},
      {"an overflow word while a base is pending loses",
       kBase1000 + std::vector{overflow(1), event(0, 1)},
       {}},
      {"a second marker starts over",
       {kMarker, kMarker, time_low(1), kMarker, time_low(2), time_high(0), event(0, 0)},
       {{0, 2}}},
      {"marker in mid-stream, base behind the last event loses",
       kBase1000 + std::vector{event(0, 0)} + kBase1000 + std::vector{event(0, 0), event(0, 5)},
       {{0, 1000}}},
      {"control words of field 3 are ignored",
       kBase1000 + std::vector{control(3, 1), event(0, 0)},
       {{0, 1000}}},
      {"time-low while running loses until the next marker",
       kBase1000 + std::vector{event(0, 0), time_low(1), event(0, 1)} +
           std::vector{kMarker, time_low(5000), time_high(0), event(0, 0)},
       {{0, 1000}, {0, 5000}}},
      {"a base near the last event's place in its own 2^41",
       kBase1000 + std::vector{event(0, 0)} + step(0, kTicks - 2000) + kBase1000 +
           std::vector{event(0, 1)},
       {{0, 1000}, {0, kTicks - 1000}, {0, kTicks + 1001}}},
      {"a step too large by the wrap's excess",
       kBase1000 + std::vector{event(0, 0)} + step(0, kExcess + 500),
       {{0, 1000}, {0, 1500}}},
      {"beyond 10 ms only across the wrap",
       kBase1000 + std::vector{event(0, 0)} + step(0, kExcess + 10'000'000'001),
       {{0, 1000}, {0, 1000 + kExcess + 10'000'000'001}}},
  };
  for (const Delta32Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = {0xEB, 0x5A, 0x55};  // almost a marker
    for (const std::uint32_t word : c.words) {
      put_big_endian(bytes, word, 4);
    }
    for (const std::size_t chunk_bytes : {1U, 3U, 4U, 7U, 100'000U}) {
      StreamDecoder decoder(header_for(Format::delta32));
      EXPECT_EQ(feed_in_chunks(decoder, bytes, chunk_bytes), c.tags) << chunk_bytes;
    }
  }
}

TEST(Delta32, SearchesTheMarkerFromTheLosingWordsFirstByte) {
  Bytes bytes;
  for (const std::uint32_t word : kBase1000) {
    put_big_endian(bytes, word, 4);
  }
  bytes.push_back(0x80);  // loses; the next marker begins inside the same word
  for (const std::uint32_t word : kBase1000 + std::vector{event(3, 9)}) {
    put_big_endian(bytes, word, 4);
  }
  StreamDecoder decoder(header_for(Format::delta32));
  EXPECT_EQ(feed(decoder, bytes), (Tags{{3, 1009}}));
}

TEST(Delta32, KeepsThreeBytesOfABufferWithoutAMarker) {
  StreamDecoder decoder(header_for(Format::delta32));
  EXPECT_TRUE(feed(decoder, Bytes(1000, 0xEB)).empty());
  EXPECT_EQ(decoder.input_buffer.size(), 3U);
}

}  // namespace
}  // namespace orvo::tests
