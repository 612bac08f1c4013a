// Packed-delta records to timestamps: sync anchors, overflow, clock wraps, and every way of losing
// the lock. The plain decoder answers the same, so that what it says elsewhere can be relied upon.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "orvo/timing/packed/packed_delta.h"
#include "support/decoding.h"
#include "support/plain_decoder.h"

namespace orvo::tests {
namespace {

/// Packs records of 16-bit payloads, most significant bit first.
class Records {
 public:
  /// d, o: a data or overflow record of a channel with a payload. s: a sync of a channel to a tick,
  /// without the data record that it anchors. +: data that steps so many ticks, with overflows.
  explicit Records(const std::string& text) {
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      unsigned channel = 0;
      unsigned long value = 0;
      std::sscanf(word.c_str() + 1, "%u,%lu", &channel, &value);
      add(word.front(), channel, value);
    }
  }

  void add(char kind, unsigned channel, std::uint64_t value) {
    if (kind == 's') {
      put(channel, true, 0xFFFF);
      for (unsigned shift = 0; shift < 48; shift += 16) put(channel, false, value >> shift);
    } else if (kind == '+') {
      for (std::uint64_t high = value >> 16; high > 0;) {
        const std::uint64_t payload = std::min<std::uint64_t>(high, 0xFFFE);
        put(channel, true, payload);
        high -= payload;
      }
      put(channel, false, value);
    } else {
      put(channel, kind == 'o', value);
    }
  }

  [[nodiscard]] const Bytes& bytes() const { return bytes_; }
  [[nodiscard]] unsigned bits() const { return bits_; }

 private:
  void put(unsigned channel, bool flag, std::uint64_t payload) {
    const std::uint64_t record = channel << 17 | (flag ? 1U : 0U) << 16 | (payload & 0xFFFF);
    for (unsigned bit = 19; bit-- > 0; ++bits_) {
      if (bits_ % 8 == 0) bytes_.push_back(0);
      bytes_.back() |= static_cast<std::uint8_t>((record >> bit & 1) << (7 - bits_ % 8));
    }
  }

  Bytes bytes_;
  unsigned bits_ = 0;
};

/// Whole bytes of syncs and events at tick 1000 of each channel of `mask`: they take the lock.
Bytes lock_of(unsigned mask) {
  Records records("");
  for (unsigned c = 0; c < 4; ++c) {
    if ((mask >> c & 1) == 0) continue;
    records.add('s', c, 1000);
    records.add('d', c, 0);
  }
  for (unsigned c = 0; records.bits() % 8 != 0; c = (c + 1) % 4) {
    if ((mask >> c & 1) != 0) records.add('d', c, 0);
  }
  return records.bytes();
}

TEST(PackedRecords, FollowTheRules) {
  constexpr auto kInside = timing::Mode::internal;
  constexpr auto kOutside = timing::Mode::external;
  // At 8 ps the counter turns 409632505856 ticks behind the clock's wrap.
  const struct {
    const char* name;
    timing::Mode mode;
    unsigned mask;
    const char *records, *tags, *drop;  // drop: the line that tells of it, without its prefix
  } cases[] = {
      {"payload in quanta", kInside, 1, "d0,5", "0:8040 ", ""},
      {"overflow payloads add up", kInside, 1, "o0,1 o0,2 d0,7 d0,1", "0:1580920 0:1580928 ", ""},
      {"sync discards overflow and anchors one event", kInside, 1, "o0,9 s0,2000 d0,5 d0,1",
       "0:16040 0:16048 ", ""},
      {"one second is the longest step", kInside, 1, "+0,125000000000", "0:1000000008000 ", ""},
      {"longer in internal mode", kInside, 1, "+0,125000000001", "",
       "drop implausible delta ch=0 delta=1000000000008 prev=8000 record=30"},
      {"longer in external mode", kOutside, 1, "+0,125000000001", "0:1000000008008 ", ""},
      {"the wrap's excess is taken off", kInside, 1, "+0,409632505859", "0:8024 ", ""},
      {"a step back of at most 1 us", kInside, 1, "+0,2199023130552", "0:-992000 ", ""},
      {"sync may step back 1 us in external mode", kOutside, 1, "s0,999 d0,0", "0:7992 ", ""},
      {"sync must not step back in internal mode", kInside, 1, "s0,999 d0,0", "",
       "drop implausible sync delta ch=0 delta=-8 next=7992 prev=8000 record=4"},
      {"sync must step", kOutside, 1, "s0,1000 d0,0", "",
       "drop implausible sync delta ch=0 delta=0 next=8000 prev=8000 record=4"},
      {"sync far ahead", kInside, 1, "s0,125000001001 d0,0", "",
       "drop implausible sync delta ch=0 delta=1000000000008 next=1000000008008 prev=8000 "
       "record=4"},
      {"sync more than 1 us back", kOutside, 1, "d0,65000 d0,65000 d0,0 s0,1001 d0,0",
       "0:528000 0:1048000 0:1048000 ",
       "drop nonmonotonic sync ch=0 next=8008 prev=1048000 record=7"},
      {"a channel without a sync is silent", kOutside, 7, "d2,1", "2:8008 ", ""},
      {"inactive channel", kInside, 5, "d0,1 d1,7", "0:8008 ",
       "drop inactive ch=1 active_mask=0x5 record=1 records=2"},
      {"another channel inside a sync", kInside, 6, "o1,65535 d1,0 d2,0", "",
       "drop sync channel mismatch ch=2 expected=1 record=2 chunks_left=2"},
      {"flag inside a sync", kInside, 6, "o1,65535 o1,1", "",
       "drop ovf in sync ch=1 record=1 chunks_left=3"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    timing::StreamFileHeader header;
    header.mode = c.mode;
    header.channel_mask = static_cast<std::uint8_t>(c.mask);
    timing::InputBuffer input;
    timing::PackedDeltaDecoder fast(header);
    PlainDecoder plain(header);
    plain.input_buffer = lock_of(c.mask);
    input.append(plain.input_buffer);
    fast.feed(input);
    plain.feed_packed_delta();
    EXPECT_TRUE(fast.locked() && plain.locked && input.size() == 0);
    plain.log.clear();
    const Bytes bytes = Records(c.records).bytes();
    setenv("ORVO_PACKED_DEBUG", "", 1);
    testing::internal::CaptureStderr();
    input.append(bytes);
    EXPECT_EQ(text_of(fast.feed(input)), c.tags);
    const std::string drop = c.drop;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              drop.empty() ? "" : "packed-decoder: " + drop + '\n');
    unsetenv("ORVO_PACKED_DEBUG");
    plain.input_buffer = bytes;
    EXPECT_EQ(text_of(plain.feed_packed_delta()), c.tags);
    EXPECT_EQ(plain.log, std::vector<std::string>(drop.empty() ? 0 : 1, drop));
  }
}

}  // namespace
}  // namespace orvo::tests
