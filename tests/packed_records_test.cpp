// Packed-delta records to timestamps: sync anchors, overflow, clock wraps, and every way of losing
// the lock. The plain decoder answers the same, so that what it says elsewhere can be relied upon.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

#include "orvo/timing/instrument_time.h"
#include "support/decoder_pair.h"
#include "support/record_writer.h"

namespace orvo::tests {
namespace {

/// d, o: a data or overflow record of a channel with a payload. s: a sync of a channel to a tick,
/// without the data record that it anchors. +: data that steps so many ticks, with overflows.
Bytes records(const std::string& text) {
  RecordWriter writer;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    unsigned channel = 0;
    unsigned long value = 0;
    std::sscanf(word.c_str() + 1, "%u,%lu", &channel, &value);
    const bool whole = word[0] == 's' || word[0] == '+';
    if (!whole) writer.record(channel, word[0] == 'o', value);
    if (whole) word[0] == 's' ? writer.sync(channel, value) : writer.data(channel, value);
  }
  return writer.bytes;
}

/// Whole bytes of syncs and events at tick 1000 of each channel of `mask`: they take the lock.
Bytes lock_of(unsigned mask) {
  RecordWriter writer;
  const auto for_each = [&](const auto& action) {
    for (unsigned c = 0; c < 4; ++c) {
      if ((mask >> c & 1) != 0) action(c);
    }
  };
  for_each([&](unsigned c) {
    writer.sync(c, 1000);
    writer.data(c, 0);
  });
  while (writer.used_bits % 8 != 0) for_each([&](unsigned c) { writer.data(c, 0); });
  return writer.bytes;
}

TEST(PackedRecords, FollowTheRules) {
  constexpr auto kInside = timing::Mode::internal;
  constexpr auto kOutside = timing::Mode::external;
  // At 8 ps the counter's period exceeds the clock's by 409632505856 ticks.
  const struct {
    const char* name;
    timing::Mode mode;
    unsigned mask;
    const char *records, *tags, *drop;
    unsigned unsynced = 0;  // channels of the mask that have had no sync
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
      {"sync exactly 1 s ahead", kInside, 1, "s0,125000001000 d0,0", "0:1000000008000 ", ""},
      {"sync exactly 1 us back", kOutside, 1, "+0,125000 s0,1000 d0,0", "0:1008000 0:8000 ", ""},
      {"sync more than 1 us back", kOutside, 1, "d0,65000 d0,65000 d0,0 s0,1001 d0,0",
       "0:528000 0:1048000 0:1048000 ",
       "drop nonmonotonic sync ch=0 next=8008 prev=1048000 record=7"},
      {"a channel without a sync is silent", kOutside, 7, "d2,1 o2,4 d2,1 d0,1", "0:8008 ", "", 4},
      {"until its first sync", kOutside, 7, "o2,9 d1,1 d2,1 s2,2000 d2,5 d0,1 o2,1 d2,1",
       "1:8008 2:16040 0:8008 2:540336 ", "", 4},
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
    DecoderPair pair(header);
    EXPECT_EQ(pair.feed(lock_of(c.mask & ~c.unsynced)), "");
    EXPECT_TRUE(pair.plain().locked && pair.plain().input_buffer.empty());
    EXPECT_EQ(pair.feed(records(c.records)), "");
    EXPECT_EQ(text_of(pair.last_tags), c.tags);
    EXPECT_EQ(pair.plain().log.size(), *c.drop == '\0' ? 1U : 2U);
    EXPECT_EQ(*c.drop == 0 ? "" : describe(pair.plain().log.back(), header), c.drop);
  }
}

TEST(PackedRecords, EventsAreLines) {
  using Kind = timing::LockEvent::Kind;
  timing::LockEvent event{.kind = Kind::locked,
                          .drop_bytes = 3,
                          .bit_offset = 7,
                          .buffer_bytes = 4096,
                          .synced = 2,
                          .min = 5,
                          .max = 11,
                          .total = 16,
                          .records = 40};
  timing::StreamFileHeader header;
  header.channel_mask = 7;
  const std::pair<Kind, const char*> lines[] = {
      {Kind::locked, "locked bits=16 drop_bytes=3 bit_offset=7 raw_bytes=4096"},
      {Kind::no_alignment, "no alignment bits=16 width=19 raw_bytes=4096"},
      {Kind::rejected_alignment,
       "reject internal alignment drop_bytes=3 bit_offset=7 synced=2/3 "
       "min=5 max=11 total=16"},
      {Kind::inactive_channel, "drop inactive ch=0 active_mask=0x7 record=0 records=40"},
      {Kind::imbalanced, "drop internal imbalanced lock min=5 max=11 total=16 records=40"}};
  for (const auto& [kind, line] : lines) {
    event.kind = kind;
    EXPECT_EQ(describe(event, header), line);
  }
}

TEST(TickCounter, CorrectsAcrossTheWrap) {
  constexpr std::int64_t kMs = 1'000'000'000;
  constexpr std::int64_t kWrap = 14'315'125'997'568;
  constexpr std::int64_t kExcess = 1'078'036'791'296;  // at 1 ps
  const timing::detail::TickCounter counter(0);
  const struct {
    std::int64_t last_ps, step_ps, corrected_ps;
  } steps[] = {
      {0, kExcess, kExcess},
      {0, kExcess + 1, 1},
      {0, kExcess + 10 * kMs, 10 * kMs},
      {0, kExcess + 10 * kMs + 1, kExcess + 10 * kMs + 1},
      {2 * kWrap - 20 * kMs, kExcess + 20 * kMs, 20 * kMs},
      {2 * kWrap - 20 * kMs - 1, kExcess + 20 * kMs, kExcess + 20 * kMs},
      {-725'849'473'024 - kMs, kExcess + 20 * kMs, kExcess + 20 * kMs},  // counts as 0
  };
  for (const auto& [last_ps, step_ps, corrected_ps] : steps) {
    EXPECT_EQ(counter.corrected_step(last_ps, static_cast<std::uint64_t>(step_ps)),
              static_cast<std::uint64_t>(corrected_ps))
        << last_ps << ' ' << step_ps;
  }
}

}  // namespace
}  // namespace orvo::tests
