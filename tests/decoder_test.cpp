// Raw64 and delta32 records to timestamps.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "support/decoding.h"

namespace orvo::tests {
namespace {

using timing::Format;

std::string decoded(Format format, const char* raw64_tag_format, const Bytes& bytes) {
  timing::StreamFileHeader header;
  header.stream_format = format;
  header.raw64_tag_format = raw64_tag_format;
  timing::StreamDecoder decoder(header);
  return text_of(feed(decoder, bytes));
}

/// One record of a stream, written as its kind and up to three numbers: "d1,500".
struct Item {
  char kind = 0;
  unsigned long a = 0, b = 0, c = 0;
};

std::vector<Item> items(const std::string& text) {
  std::istringstream words(text);
  std::vector<Item> all;
  for (std::string word; words >> word;) {
    Item& item = all.emplace_back();
    std::sscanf(word.c_str(), "%c%lu,%lu,%lu", &item.kind, &item.a, &item.b, &item.c);
  }
  return all;
}

/// p: channel, time. c: channel, coarse and fine count. x: a byte.
Bytes raw64_bytes(const char* text) {
  Bytes bytes;
  for (const Item& item : items(text)) {
    if (item.kind == 'x') {
      bytes.push_back(static_cast<std::uint8_t>(item.a));
    } else if (item.kind == 'p') {
      put_big_endian(bytes, item.a << 61 | item.b, 8);
    } else {
      put_big_endian(bytes, item.a << 61 | 0xA5C3UL << 45 | item.b << 13 | item.c, 8);
    }
  }
  return bytes;
}

TEST(Raw64, RecordsBecomeTags) {
  const struct {
    const char *tag_format, *records, *tags;
  } cases[] = {
      // The clock's wrap counts on its channel alone, for a step back of more than half of it.
      {"ps", "p1,14000000000000 p2,5 p1,1", "1:14000000000000 2:5 1:14315125997569 "},
      {"ps", "p0,7157562998791 p0,7", "0:7157562998791 0:7 "},
      {"ps", "p3,7157562998792 p3,7", "3:7157562998792 3:14315125997575 "},
      {"", "p0,14315125997571", "0:3 "},
      {"RAW_CF", "c0,10,0 c0,10,1 c2,10,180 c2,10,181", "0:33330 0:33311 2:30000 2:29998 "},
      {"raw_cf", "c3,0,8191", "3:-3332 "},
      {"raw_cf", "c1,4294967295,0 c1,1,0", "1:14315125994235 1:14315126000901 "},
      {"raw_cf", "c0,2147483648,0 c0,0,0", "0:7157562998784 0:0 "},
      {"raw_cf", "c0,2147483649,0 c1,0,0", "0:7157563002117 1:0 "},  // wraps one by one
      {"ps", "c0,10,0", ""},                                         // the other layout
      {"ps", "x255 x255 x255 p2,11259375 x255 x1 x2 x3", "2:11259375 "},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(decoded(Format::raw64, c.tag_format, raw64_bytes(c.records)), c.tags) << c.records;
  }
}

/// m: a marker. c: a control word of field and payload: overflow (0), the low (1) or high half (2)
/// of a base time. e: an event. b: a whole base. s: overflow and an event that step so far.
void put_delta32(Bytes& bytes, const Item& item) {
  const auto put = [&](char kind, std::uint64_t a, std::uint64_t b) {
    put_delta32(bytes, {kind, a, b, 0});
  };
  switch (item.kind) {
    case 'x':
      return bytes.push_back(static_cast<std::uint8_t>(item.a));
    case 'm':
      return put_big_endian(bytes, 0xEB5A55AA, 4);
    case 'c':
      return put_big_endian(bytes, 1U << 31 | item.a << 29 | 5U << 25 | item.b, 4);
    case 'e':
      return put_big_endian(bytes, item.a << 29 | 10U << 25 | item.b, 4);
    case 'b':
      put('m', 0, 0);
      put('c', 1, item.a);
      return put('c', 2, 0);
    default:
      std::uint64_t periods = item.b >> 25;
      for (; periods > 0xFFFF; periods -= 0xFFFF) put('c', 0, 0xFFFF);
      put('c', 0, periods);
      put('e', item.a, item.b % (1U << 25));
  }
}

TEST(Delta32, WordsBecomeTags) {
  const struct {
    const char *name, *words, *tags;
  } cases[] = {
      {"base, then steps", "b1000 e1,7 e1,5 c0,2 e1,1", "1:1007 1:1012 1:67109877 "},
      {"the base serves one event", "b1000 e1,7 e2,7", "1:1007 "},
      {"unknown channel, with overflow", "b1000 e0,0 c0,3 e1,7 e0,1", "0:1000 0:1001 "},
      {"bits 25 to 40", "m c1,1 c2,65535 e0,0", "0:2198989701121 "},
      {"a time-high bit above 15 loses", "m c1,1 c2,65536 e0,0", ""},
      {"overflow with a base pending loses", "b1000 c0,1 e0,1", ""},
      {"a second marker starts over", "m m c1,1 m c1,2 c2,0 e0,0", "0:2 "},
      {"a base behind the last event loses", "b1000 e0,0 b1000 e0,0 e0,5", "0:1000 "},
      {"field 3 is ignored", "b1000 c3,1 e0,0", "0:1000 "},
      {"time-low loses", "b1000 e0,0 c1,1 e0,1 b5000 e0,0", "0:1000 0:5000 "},
      {"the base's own place in 2^41", "b1000 e0,0 s0,2199023253552 b1000 e0,1",
       "0:1000 0:2199023254552 0:2199023256553 "},
      {"the wrap's excess", "b1000 e0,0 s0,1078036791796", "0:1000 0:1500 "},
      {"the wrap's excess in a base", "b1000 e0,0 m c1,1500 c2,32128 e0,0", "0:1000 0:1500 "},
      {"more than 10 ms beyond it", "b1000 e0,0 s0,1088036791297", "0:1000 0:1088036792297 "},
      {"a marker inside the losing word", "b1000 x128 b1000 e3,9", "3:1009 "},
  };
  for (const auto& c : cases) {
    Bytes bytes = {0xEB, 0x5A, 0x55};  // almost a marker
    for (const Item& item : items(c.words)) put_delta32(bytes, item);
    EXPECT_EQ(decoded(Format::delta32, "", bytes), c.tags) << c.name;
  }
}

TEST(Delta32, KeepsThreeBytesOfABufferWithoutAMarker) {
  timing::StreamFileHeader header;
  header.stream_format = Format::delta32;
  timing::StreamDecoder decoder(header);
  EXPECT_TRUE(feed(decoder, Bytes(1000, 0xEB)).empty());
  EXPECT_EQ(decoder.buffered_bytes(), 3U);
}

}  // namespace
}  // namespace orvo::tests
