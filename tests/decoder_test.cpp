// Records of each format to timestamps. In the tables a record is a word: its kind and up to three
// numbers, as in "d1,500".
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "support/decoder_pair.h"
#include "support/record_writer.h"

namespace orvo::tests {
namespace {

using timing::Format;
using timing::Mode;

struct Word {
  char kind = 0;
  unsigned long a = 0, b = 0, c = 0;
};

std::vector<Word> words(const std::string& text) {
  std::istringstream in(text);
  std::vector<Word> all;
  for (std::string word; in >> word;) {
    Word& last = all.emplace_back();
    std::sscanf(word.c_str(), "%c%lu,%lu,%lu", &last.kind, &last.a, &last.b, &last.c);
  }
  return all;
}

std::string decoded(Format format, const char* raw64_tag_format, const Bytes& bytes) {
  timing::StreamFileHeader header;
  header.stream_format = format;
  header.raw64_tag_format = raw64_tag_format;
  const auto decoder = timing::StreamDecoder::make(header);
  std::string tags = text_of(feed(*decoder, bytes));
  EXPECT_LT(decoder->buffered_bytes(), format == Format::delta32 ? 4U : 8U);
  return tags;
}

/// p: channel, time. c: channel, coarse and fine count. x: a byte.
Bytes raw64_bytes(const char* text) {
  Bytes bytes;
  for (const Word& word : words(text)) {
    if (word.kind == 'x') {
      bytes.push_back(static_cast<std::uint8_t>(word.a));
    } else if (word.kind == 'p') {
      put_big_endian(bytes, word.a << 61 | word.b, 8);
    } else {
      put_big_endian(bytes, word.a << 61 | 0xA5C3UL << 45 | word.b << 13 | word.c, 8);
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
      {"raw_cf", "c4,10,0 p0,33330 c1,10,0", "1:33330 "},            // bit 63; the other layout
      {"ps", "c0,10,0", ""},
      {"ps", "p4,5", ""},
      {"ps", "x255 x255 x255 p2,11259375 x255 x1 x2 x3", "2:11259375 "},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(decoded(Format::raw64, c.tag_format, raw64_bytes(c.records)), c.tags) << c.records;
  }
}

/// m: a marker. c: a control word of field and payload: overflow (0), the low (1) or high half (2)
/// of a base time. e: an event. b: a whole base. x: a byte.
Bytes delta32_bytes(const char* text) {
  Bytes bytes;
  const auto put_word = [&](std::uint64_t word) { put_big_endian(bytes, word, 4); };
  const auto put_control = [&](std::uint64_t field, std::uint64_t payload) {
    put_word(1U << 31 | field << 29 | 5U << 25 | payload);
  };
  for (const Word& word : words(text)) {
    if (word.kind == 'm' || word.kind == 'b') put_word(0xEB5A55AA);
    if (word.kind == 'b') {
      put_control(1, word.a);
      put_control(2, 0);
    }
    if (word.kind == 'c') put_control(word.a, word.b);
    if (word.kind == 'e') put_word(word.a << 29 | 10U << 25 | word.b);
    if (word.kind == 'x') bytes.push_back(static_cast<std::uint8_t>(word.a));
  }
  return bytes;
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
      {"a base before the last event loses", "b1000 e0,0 b1000 e0,0 e0,5", "0:1000 "},
      {"field 3 is ignored", "b1000 c3,1 e0,0", "0:1000 "},
      {"time-low loses", "b1000 e0,0 c1,1 e0,1 b5000 e0,0", "0:1000 0:5000 "},
      {"the base's own place in 2^41", "b1000 e0,0 c0,65535 e0,33552432 b1000 e0,1",
       "0:1000 0:2199023254552 0:2199023256553 "},
      {"the wrap's excess", "b1000 e0,0 c0,32128 e0,500", "0:1000 0:1500 "},
      {"the wrap's excess in a base", "b1000 e0,0 m c1,1500 c2,32128 e0,0", "0:1000 0:1500 "},
      {"more than 10 ms beyond it", "b1000 e0,0 c0,32426 e0,779265", "0:1000 0:1088036792297 "},
      {"a marker inside the losing word", "b1000 x128 b1000 e3,9", "3:1009 "},
  };
  for (const auto& c : cases) {
    const Bytes bytes = Bytes{0xEB, 0x5A, 0x55} + delta32_bytes(c.words);  // first almost a marker
    EXPECT_EQ(decoded(Format::delta32, "", bytes), c.tags) << c.name;
  }
}

/// d, o: a data or overflow record of a channel with a payload. s: a sync of a channel to a tick,
/// without the data record that it anchors. +: data that steps so many ticks, with overflows.
Bytes packed_bytes(const std::string& text, unsigned bits) {
  RecordWriter writer(bits);
  for (const auto& [kind, channel, value, _] : words(text)) {
    const auto c = static_cast<unsigned>(channel);
    kind == 's'   ? writer.sync(c, value)
    : kind == '+' ? writer.data(c, value)
                  : writer.record(c, kind == 'o', value);
  }
  return writer.bytes;
}

// The plain decoder answers the same, so that what it says elsewhere can be relied upon. The lock
// is taken on an event of each synced channel at tick 1000, 8000 ps.
TEST(PackedRecords, FollowTheRules) {
  constexpr unsigned kBits = 13;  // a record has two bytes
  constexpr auto kInside = Mode::internal;
  constexpr auto kOutside = Mode::external;
  // At 8 ps the counter's period exceeds the clock's by 409632505856 ticks.
  const struct {
    const char* name;
    Mode mode;
    unsigned mask;
    const char *records, *tags, *drop;
    unsigned unsynced = 0;  // channels of the mask that have had no sync
  } cases[] = {
      {"payload in quanta", kInside, 1, "d0,5", "0:8040 ", ""},
      {"overflow payloads add up", kInside, 1, "o0,1 o0,2 d0,7 d0,1", "0:204664 0:204672 ", ""},
      {"sync discards overflow and anchors one event", kInside, 1, "o0,9 s0,2000 d0,5 d0,1",
       "0:16040 0:16048 ", ""},
      {"one second is the longest step", kInside, 1, "+0,125000000000", "0:1000000008000 ", ""},
      {"longer in internal mode", kInside, 1, "+0,125000000001", "",
       "drop implausible delta ch=0 delta=1000000000008 prev=8000 record=1864"},
      {"longer in external mode", kOutside, 1, "+0,125000000001", "0:1000000008008 ", ""},
      {"the wrap's excess", kOutside, 1, "+0,409632505856", "0:3277060054848 ", ""},
      {"the wrap's excess is taken off", kInside, 1, "+0,409632505859", "0:8024 ", ""},
      {"10 ms beyond it", kInside, 1, "+0,410882505856", "0:10000008000 ", ""},
      {"more than 10 ms beyond it", kOutside, 1, "+0,410882505857", "0:3287060054856 ", ""},
      {"20 ms beyond it, before the wrap", kOutside, 1, "s0,1786890749695 d0,0 +0,412132505856",
       "0:14295125997560 0:17592186044408 ", ""},
      {"20 ms beyond it, to the wrap", kOutside, 1, "s0,1786890749696 d0,0 +0,412132505856",
       "0:14295125997568 0:14315125997568 ", ""},
      {"a step of the counter's whole period", kInside, 1, "+0,2199023255552", "0:8000 ", ""},
      {"a step back of at most 1 us", kInside, 1, "+0,2199023130552", "0:-992000 ", ""},
      {"a time below zero is far from the wrap", kOutside, 1, "+0,2199023130552 +0,2109632505856",
       "0:-992000 0:16877059054848 ", ""},
      {"sync may step back 1 us in external mode", kOutside, 1, "s0,999 d0,0", "0:7992 ", ""},
      {"sync must not step back in internal mode", kInside, 1, "s0,999 d0,0", "",
       "drop implausible sync delta ch=0 delta=-8 next=7992 prev=8000 record=5"},
      {"sync must step", kOutside, 1, "s0,1000 d0,0", "",
       "drop implausible sync delta ch=0 delta=0 next=8000 prev=8000 record=5"},
      {"sync far ahead", kInside, 1, "s0,125000001001 d0,0", "",
       "drop implausible sync delta ch=0 delta=1000000000008 next=1000000008008 prev=8000 "
       "record=5"},
      {"sync exactly 1 s ahead", kInside, 1, "s0,125000001000 d0,0", "0:1000000008000 ", ""},
      {"sync exactly 1 us back", kOutside, 1, "+0,125000 s0,1000 d0,0", "0:1008000 0:8000 ", ""},
      {"sync more than 1 us back", kOutside, 1, "+0,125000 s0,999 d0,0", "0:1008000 ",
       "drop nonmonotonic sync ch=0 next=7992 prev=1008000 record=7"},
      {"a channel without a sync is silent", kOutside, 7, "d2,1 o2,4 d2,1 d0,1", "0:8008 ", "", 4},
      {"until its first sync", kOutside, 7, "o2,9 d1,1 d2,1 s2,2000 d2,5 d0,1 o2,1 d2,1",
       "1:8008 2:16040 0:8008 2:81584 ", "", 4},
      {"inactive channel", kInside, 5, "+0,700000000 d1,7", "0:5600008000 ",
       "drop inactive ch=1 active_mask=0x5 record=12 records=13"},
      {"another channel inside a sync", kInside, 6, "o1,8191 d1,0 d2,0", "",
       "drop sync channel mismatch ch=2 expected=1 record=2 chunks_left=3"},
      {"flag inside a sync", kInside, 6, "o1,8191 o1,1", "",
       "drop ovf in sync ch=1 record=1 chunks_left=4"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    timing::StreamFileHeader header;
    header.mode = c.mode;
    header.channel_mask = static_cast<std::uint8_t>(c.mask);
    header.delta_bits = kBits;
    std::string lock;
    for (unsigned channel = 0; channel < 4; ++channel) {
      const std::string name = std::to_string(channel);
      const bool synced = ((c.mask & ~c.unsynced) >> channel & 1) != 0;
      if (synced) lock += "s" + name + ",1000 d" + name + ",0 ";
    }
    DecoderPair pair(header);
    EXPECT_EQ(pair.feed(packed_bytes(lock, kBits)), "");
    EXPECT_EQ(pair.feed(packed_bytes(c.records, kBits)), "");
    EXPECT_EQ(text_of(pair.last_tags), c.tags);
    EXPECT_EQ(pair.plain().log.size(), *c.drop == '\0' ? 1U : 2U);
    EXPECT_EQ(*c.drop == '\0' ? "" : describe(pair.plain().log.back(), header), c.drop);
  }
}

}  // namespace
}  // namespace orvo::tests
