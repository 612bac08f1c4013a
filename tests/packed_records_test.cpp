// Packed-delta records to timestamps: sync anchors, overflow, clock wraps, and every way of losing
// the lock. The alignment search runs first, as it does for a recording.
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/decoding.h"

namespace orvo::tests {
namespace {

using timing::Mode;
using timing::StreamDecoder;
using timing::StreamFileHeader;

constexpr std::int64_t kWrapPs = 14'315'125'997'568;
constexpr std::int64_t kExcessPs = (1LL << 44) - kWrapPs;  // at a quantum of 8 ps
constexpr std::int64_t kSecondPs = 1'000'000'000'000;

/// Packs records of 16-bit payloads, most significant bit first.
class Records {
 public:
  Records& put(unsigned channel, bool flag, std::uint64_t payload) {
    put_bits(channel << 1 | (flag ? 1U : 0U), 3);
    put_bits(payload, 16);
    return *this;
  }
  Records& data(unsigned channel, std::uint64_t payload) { return put(channel, false, payload); }
  Records& overflow(unsigned channel, std::uint64_t payload) { return put(channel, true, payload); }
  /// A sync to `tick`, without the data record that it anchors.
  Records& sync(unsigned channel, std::uint64_t tick) {
    put(channel, true, 0xFFFF);
    for (unsigned shift = 0; shift < 48; shift += 16) {
      data(channel, tick >> shift & 0xFFFF);
    }
    return *this;
  }
  Records& put_bits(std::uint64_t value, unsigned count) {
    while (count-- > 0) {
      if (bits_++ % 8 == 0) bytes_.push_back(0);
      bytes_.back() |= static_cast<std::uint8_t>((value >> count & 1) << (7 - (bits_ - 1) % 8));
    }
    return *this;
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
  unsigned bits_ = 0;
};

struct Outcome {
  Tags tags;
  std::string log;
};

class PackedRecords : public testing::Test {
 protected:
  void TearDown() override { unsetenv("ORVO_PACKED_DEBUG"); }

  static StreamFileHeader header(Mode mode, std::uint8_t mask) {
    StreamFileHeader h;
    h.mode = mode;
    h.channel_mask = mask;
    return h;
  }

  /// Locks on whole bytes of syncs and events at tick 1000 of each channel of `mask`, then
  /// decodes what `records` holds, as a batch of its own.
  static Outcome decode(Mode mode, std::uint8_t mask, Records (*records)(Records)) {
    Records first;
    unsigned count = 0;
    for (unsigned c = 0; c < 4; ++c) {
      if ((mask >> c & 1) != 0) {
        first.sync(c, 1000).data(c, 0);
        count += 5;
      }
    }
    for (unsigned c = 0; count % 8 != 0; c = (c + 1) % 4) {
      if ((mask >> c & 1) != 0) {
        first.data(c, 0);
        ++count;
      }
    }
    StreamDecoder decoder(header(mode, mask));
    unsetenv("ORVO_PACKED_DEBUG");
    feed(decoder, first.bytes());
    EXPECT_TRUE(decoder.locked() && decoder.input_buffer.size() == 0);
    setenv("ORVO_PACKED_DEBUG", "", 1);
    testing::internal::CaptureStderr();
    const Tags tags = feed(decoder, records({}).bytes());
    return {tags, testing::internal::GetCapturedStderr()};
  }
};

struct Case {
  const char* name;
  Mode mode;
  std::uint8_t mask;
  Records (*records)(Records);
  Tags tags;
  const char* drop;  // the line that tells of it, without its prefix
};

constexpr std::uint64_t ticks(std::int64_t ps) { return static_cast<std::uint64_t>(ps) / 8; }

/// Overflow records and a data record that step `count` ticks on.
Records step(Records r, unsigned channel, std::uint64_t count) {
  for (std::uint64_t high = count >> 16; high > 0;) {
    const std::uint64_t payload = std::min<std::uint64_t>(high, 0xFFFE);
    r.overflow(channel, payload);
    high -= payload;
  }
  return r.data(channel, count & 0xFFFF);
}

const std::vector<Case> kCases = {
    {"payload in quanta",
     Mode::internal,
     1,
     [](Records r) { return r.data(0, 5); },
     {{0, 8040}},
     ""},
    {"overflow payloads add up",
     Mode::internal,
     1,
     [](Records r) { return r.overflow(0, 1).overflow(0, 2).data(0, 7).data(0, 1); },
     {{0, 8000 + 1'572'920}, {0, 8000 + 1'572'928}},
     ""},
    {"sync discards overflow and anchors one event",
     Mode::internal,
     1,
     [](Records r) { return r.overflow(0, 9).sync(0, 2000).data(0, 5).data(0, 1); },
     {{0, 16'040}, {0, 16'048}},
     ""},
    {"one second is the longest step",
     Mode::internal,
     1,
     [](Records r) { return step(r, 0, ticks(kSecondPs)); },
     {{0, 8000 + kSecondPs}},
     ""},
    {"longer in internal mode",
     Mode::internal,
     1,
     [](Records r) { return step(r, 0, ticks(kSecondPs) + 1); },
     {},
     "drop implausible delta ch=0 delta=1000000000008 prev=8000 record=30"},
    {"longer in external mode",
     Mode::external,
     1,
     [](Records r) { return step(r, 0, ticks(kSecondPs) + 1); },
     {{0, 8000 + kSecondPs + 8}},
     ""},
    {"the wrap's excess is taken off",
     Mode::internal,
     1,
     [](Records r) { return step(r, 0, ticks(kExcessPs) + 3); },
     {{0, 8024}},
     ""},
    {"a step back of at most 1 us",
     Mode::internal,
     1,
     [](Records r) { return step(r, 0, (1ULL << 41) - 125'000); },
     {{0, 8000 - 1'000'000}},
     ""},
    {"sync may step back 1 us in external mode",
     Mode::external,
     1,
     [](Records r) { return r.sync(0, 999).data(0, 0); },
     {{0, 7992}},
     ""},
    {"sync must not step back in internal mode",
     Mode::internal,
     1,
     [](Records r) { return r.sync(0, 999).data(0, 0); },
     {},
     "drop implausible sync delta ch=0 delta=-8 next=7992 prev=8000 record=4"},
    {"sync must step",
     Mode::external,
     1,
     [](Records r) { return r.sync(0, 1000).data(0, 0); },
     {},
     "drop implausible sync delta ch=0 delta=0 next=8000 prev=8000 record=4"},
    {"sync far ahead",
     Mode::internal,
     1,
     [](Records r) { return r.sync(0, ticks(kSecondPs) + 1001).data(0, 0); },
     {},
     "drop implausible sync delta ch=0 delta=1000000000008 next=1000000008008 prev=8000 record=4"},
    {"sync more than 1 us back",
     Mode::external,
     1,
     [](Records r) {
       return r.data(0, 65'000).data(0, 65'000).data(0, 0).sync(0, 1001).data(0, 0);
     },
     {{0, 528'000}, {0, 1'048'000}, {0, 1'048'000}},
     "drop nonmonotonic sync ch=0 next=8008 prev=1048000 record=7"},
    {"a channel without a sync is silent",
     Mode::external,
     7,
     [](Records r) { return r.data(3 - 1, 1); },
     {{2, 8008}},
     ""},
    {"inactive channel",
     Mode::internal,
     5,
     [](Records r) { return r.data(0, 1).data(1, 7); },
     {{0, 8008}},
     "drop inactive ch=1 active_mask=0x5 record=1 records=2"},
    {"another channel inside a sync",
     Mode::internal,
     6,
     [](Records r) { return r.put(1, true, 0xFFFF).data(1, 0).data(2, 0); },
     {},
     "drop sync channel mismatch ch=2 expected=1 record=2 chunks_left=2"},
    {"flag inside a sync",
     Mode::internal,
     6,
     [](Records r) { return r.put(1, true, 0xFFFF).put(1, true, 1); },
     {},
     "drop ovf in sync ch=1 record=1 chunks_left=3"},
};

TEST_F(PackedRecords, FollowTheRules) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const Outcome outcome = decode(c.mode, c.mask, c.records);
    EXPECT_EQ(outcome.tags, c.tags);
    EXPECT_EQ(outcome.log, *c.drop == '\0' ? "" : "packed-decoder: " + std::string(c.drop) + '\n');
  }
}

}  // namespace
}  // namespace orvo::tests
