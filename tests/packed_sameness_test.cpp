// The packed-delta decoder against the plain one, compared after every feed: generated, damaged and
// random streams, every width, mask and mode, both kernels; and limits that few of those meet.
//
// ORVO_SAMENESS_RECORDS: go on until there were so many records (default: those of 3,000 streams).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <string>

#include "orvo/timing/packed/record_groups.h"
#include "support/decoder_pair.h"
#include "support/record_writer.h"

namespace orvo::tests {
namespace {

using Kind = timing::LockEvent::Kind;

class Random {
 public:
  explicit Random(std::uint64_t seed) : random_(seed) {}

  std::uint64_t below(std::uint64_t end) { return random_() % end; }
  bool one_in(std::uint64_t n) { return below(n) == 0; }

 private:
  std::mt19937_64 random_;
};

timing::StreamFileHeader some_header(Random& random) {
  timing::StreamFileHeader header;
  header.mode = random.one_in(3) ? timing::Mode::external : timing::Mode::internal;
  header.channel_mask = static_cast<std::uint8_t>(random.one_in(40)  ? 0x30  // none is active
                                                  : random.one_in(2) ? 15
                                                                     : random.below(16));
  header.delta_bits = static_cast<std::uint8_t>(random.one_in(3)    ? 16
                                                : random.one_in(20) ? 0
                                                                    : 1 + random.below(31));
  const std::uint64_t quantum_ps = random.below(1U << 16) >> random.below(17) << random.below(16);
  header.quantum_ps = static_cast<std::uint16_t>(random.one_in(3) ? 8 : quantum_ps);
  return header;
}

/// Packed-delta records as an instrument sends them, with others among them that a decoder has to
/// notice. About `size` bytes that start in mid-record. One record in `fault_interval` is not as an
/// instrument sends it; 0 for none. In external mode channels past the first two may have no sync
/// for long.
class PackedStream : public RecordWriter {
 public:
  PackedStream(Random& random, const timing::StreamFileHeader& header, std::size_t size,
               std::uint64_t fault_interval)
      : RecordWriter(header.delta_bits == 0 ? 16 : std::min<unsigned>(header.delta_bits, 31)),
        random_(random),
        shift_(header.quantum_ps == 0 ? 3U
                                      : static_cast<unsigned>(std::countr_zero(header.quantum_ps))),
        sync_interval_(8U << random.below(5)),
        step_(std::uint64_t{2} << random.below(payload_bits + 3)) {
    const std::uint64_t start = random.one_in(8) ? 0 : random.below(kTickMask) >> random.below(40);
    channels_.fill({.ticks = start});
    if (header.mode == timing::Mode::external && random.one_in(2)) {
      channels_[1 + random.below(2)].first_sync = random.below(2000);
    }
    bits(random.below(1U << 20), static_cast<unsigned>(random.below(20)));  // the cut-off record
    const unsigned active = (header.channel_mask & 15) == 0 ? 15 : header.channel_mask;
    const bool in_turn = !random.one_in(3);
    for (unsigned c = 0; bytes.size() < size;
         c = static_cast<unsigned>(in_turn ? c + 1 : random.below(4)) % 4) {
      if ((active >> c & 1) == 0) continue;
      if (fault_interval != 0 && random.one_in(fault_interval)) fault(c);
      event(c);
    }
  }

 private:
  static constexpr std::uint64_t kWrapPs = 0xD0500000000;
  static constexpr std::uint64_t kTickMask = (std::uint64_t{1} << 41) - 1;

  struct Channel {
    std::uint64_t ticks = 0, events = 0, first_sync = 0;
  };

  void event(unsigned c) {
    const std::uint64_t number = channels_[c].events++;
    const bool syncs = number >= channels_[c].first_sync && number % sync_interval_ == 0;
    step(c, step_ + random_.below(step_), syncs);
  }

  void fault(unsigned c) {
    const std::uint64_t some = random_.below(ones + 1);
    const auto other = static_cast<unsigned>(random_.below(4));
    const bool flag = random_.one_in(2);
    switch (random_.below(7)) {
      case 0:
        return record(other, flag, some);
      case 1:  // a sync broken off
        record(c, true, ones);
        return record(flag ? c : other, flag, some);
      case 2:  // its data record comes later, if ever
        return sync(c, channels_[c].ticks + random_.below(1000));
      case 3:  // ahead or back
        return step(c, flag ? critical_ticks() : 0 - critical_ticks(), true);
      case 4:
        return step(c, payload_bits < 14 ? some : critical_ticks() & kTickMask, false);
      case 5:  // a step of any size, also beyond 64 bits
        for (std::uint64_t k = random_.below(12); k > 0; --k) record(c, true, ones - (ones > 1));
        return record(c, false, some);
      default:  // off the record grid
        return bits(some, static_cast<unsigned>(random_.below(payload_bits + 3)));
    }
  }

  void step(unsigned c, std::uint64_t ticks, bool syncs) {
    std::uint64_t& now = channels_[c].ticks;
    now = (now + ticks) & kTickMask;
    if (syncs || (ones == 1 && ticks > 1)) {  // overflow records of one bit hold nothing
      sync(c, now);
      ticks = 0;
    }
    data(c, ticks);
  }

  /// One of the steps at which a decoder decides something, or near it.
  std::uint64_t critical_ticks() {
    const std::uint64_t period = std::uint64_t{1} << (41 + shift_);
    const std::uint64_t excess = (0 - kWrapPs) & (period - 1);
    const std::uint64_t critical[] = {
        0,          1'000'000,          excess, excess + 10'000'000'000,      1'000'000'000'000,
        period / 2, period - 1'000'000, period, std::min(period, kWrapPs) / 2};
    const std::uint64_t near = random_.one_in(3) ? 0 : random_.below(64) << random_.below(28);
    const std::uint64_t value = critical[random_.below(std::size(critical))];
    return (random_.one_in(2) ? value + near : value - std::min(near, value)) >> shift_;
  }

  Random& random_;
  unsigned shift_;
  std::uint64_t sync_interval_, step_;
  std::array<Channel, 4> channels_;
};

/// Noise, or bytes of one value, which repeat sync starts or inactive channels from end to end; and
/// perhaps a stream between them.
Bytes senseless_bytes(Random& random, const timing::StreamFileHeader& header, std::size_t size) {
  constexpr std::uint8_t kBytes[] = {0x00, 0xFF, 0x55, 0xAA, 0xDF, 0x7F, 0x3F, 0xFC};
  Bytes bytes(size, kBytes[random.below(std::size(kBytes))]);
  if (random.one_in(4)) {
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random.below(256));
  }
  if (size > 0 && random.one_in(2)) {
    const Bytes stream = PackedStream(random, header, random.below(500), 0).bytes;
    const auto at = static_cast<std::ptrdiff_t>(random.below(size));
    bytes.insert(bytes.begin() + at, stream.begin(), stream.end());
  }
  return bytes;
}

// Short streams, whose lock searches are cheap, show the faults; few long ones bring the records,
// as many damaged as clean ones.
TEST(PackedSameness, EveryFeed) {
  const char* const text = std::getenv("ORVO_SAMENESS_RECORDS");
  const std::uint64_t budget = text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
  Random random(1);
  std::map<Kind, std::uint64_t> kinds;
  std::uint64_t clean = 0, damaged = 0, silent = 0;  // records of such streams; streams
  for (std::uint64_t round = 0; round < 3000 || clean + damaged < budget; ++round) {
    const std::uint64_t turn = round % 1000;
    const bool is_long = turn % 200 == 0;
    const std::size_t size = is_long ? std::clamp<std::size_t>(budget / 100, 100'000, 8'000'000)
                             // Where a search looks no further, and where it gives bytes up.
                             : turn < 3   ? 65'536 - 20 + random.below(100)
                             : turn < 20  ? 4096 - 10 + random.below(20)
                             : turn < 130 ? random.below(2000)
                                          : random.below(300);
    const timing::StreamFileHeader header = some_header(random);
    // Above 65,536 bytes a later start sees more records: in a clean stream the last one wins.
    const bool is_clean = is_long ? clean <= damaged : turn == 1 || random.one_in(6);
    const std::uint64_t fault_interval = is_clean ? 0 : (is_long ? 5120U : 20U) << random.below(8);
    Bytes stream = !is_clean && !is_long && random.one_in(2)
                       ? senseless_bytes(random, header, size)
                       : PackedStream(random, header, size, fault_interval).bytes;
    stream.resize(size);
    setenv("ORVO_PACKED_KERNEL", random.one_in(2) ? "portable" : "", 1);
    DecoderPair pair(header);
    const bool whole = random.one_in(2);
    const std::size_t max_chunk = 1 + 2 * size / (1 + random.below(8));
    const auto next_bytes = [&] {
      const std::size_t waiting = pair.plain().input_buffer.size();
      if (is_long && waiting == 0) return std::uint64_t{2000};
      if (is_long && !is_clean) return waiting < 4096 ? random.below(8192) : 65'536;
      return whole ? size : random.below(max_chunk + 1);
    };
    ASSERT_EQ(pair.feed_in_chunks(stream, next_bytes), "")
        << "round " << round << ", " << timing::detail::stream_header_to_json(header);
    (is_clean ? clean : damaged) += pair.plain().records_decoded;
    if (pair.plain().log.empty()) ++silent;
    for (const timing::LockEvent& event : pair.plain().log) ++kinds[event.kind];
  }
  unsetenv("ORVO_PACKED_KERNEL");
#if defined(__x86_64__)
  const timing::detail::PackedFormat format(timing::StreamFileHeader{});
  EXPECT_TRUE(timing::detail::RecordGroups::make(format)) << "all had the portable kernel";
  std::cout << "kernels: portable and " ORVO_WIDE_KERNEL "; ";
#endif
  std::cout << clean << " records of clean streams, " << damaged << " of damaged ones; " << silent
            << " streams without an event, events";
  EXPECT_GT(silent, 0U);
  // All but `imbalanced`, which needs thousands of tags in a batch.
  for (auto kind = static_cast<int>(Kind::locked); kind < static_cast<int>(Kind::imbalanced);
       ++kind) {
    std::cout << ' ' << kinds[static_cast<Kind>(kind)];
    EXPECT_GT(kinds[static_cast<Kind>(kind)], 0U) << "events of kind " << kind;
  }
  std::cout << "\n";
}

/// Of a width of five bits, whose records are bytes, for channels 0 and 1.
timing::StreamFileHeader byte_header(timing::Mode mode, std::uint8_t mask) {
  timing::StreamFileHeader header;
  header.mode = mode;
  header.channel_mask = mask;
  header.delta_bits = 5;
  return header;
}
const Bytes kSync0 = {0x3F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};  // with its data record
const Bytes kSync1 = {0x7F, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64};

TEST(PackedSameness, LimitsOfLinesAndBuffer) {
  DecoderPair pair(byte_header(timing::Mode::external, 1));
  const Bytes inactive = {0x40};
  setenv("ORVO_PACKED_DEBUG", "", 1);
  testing::internal::CaptureStderr();
  const struct {
    std::size_t size, kept, events;  // of a buffer without a lock
  } buffers[] = {{4'095, 4'095, 0}, {4'096, 4'096, 1}, {65'536, 65'536, 2}, {65'537, 4'096, 3}};
  for (const auto& [size, kept, events] : buffers) {
    ASSERT_EQ(pair.feed(Bytes(size - pair.plain().input_buffer.size())), "");
    EXPECT_EQ(pair.plain().input_buffer.size(), kept);
    EXPECT_EQ(pair.plain().log.size(), events);
  }
  for (int k = 0; k < 105; ++k) {
    ASSERT_EQ(pair.feed(kSync0), "") << k;
    ASSERT_EQ(pair.feed(inactive), "") << k;
  }
  const std::string lines = testing::internal::GetCapturedStderr();
  unsetenv("ORVO_PACKED_DEBUG");
  EXPECT_TRUE(lines.starts_with("packed-decoder: no alignment bits=5 width=8 raw_bytes=4096\n"))
      << lines;
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 200);
}

// A batch of 4,096 tags or more in which a channel has less than an eighth of another's cannot come
// from the calibration source.
TEST(PackedSameness, LimitsOfImbalance) {
  const timing::StreamFileHeader header = byte_header(timing::Mode::internal, 3);
  const Bytes lock = kSync0 + kSync1;
  const auto ch0 = [](std::size_t events) { return Bytes(events, 0x01); };
  const auto ch1 = [](std::size_t events) { return Bytes(events, 0x41); };
  const struct {
    Bytes before, batch;
    std::size_t tags;
    const char* drop;
  } cases[] = {
      {lock, ch0(4095), 4095, ""},
      {lock, ch0(4096), 0, "min=0 max=4096 total=4096 records=4096"},
      {lock, ch0(3648) + ch1(456), 4104, ""},
      {lock, ch0(3649) + ch1(456), 0, "min=456 max=3649 total=4105 records=4105"},
      // Events of a channel before its first sync give no tags.
      {{}, kSync0 + ch0(2989) + ch1(28'000) + kSync1 + ch1(1989), 2990 + 1990, ""},
  };
  for (const auto& c : cases) {
    for (const char* const kernel : {"portable", ""}) {
      SCOPED_TRACE(testing::Message() << c.batch.size() << " records, " << kernel);
      setenv("ORVO_PACKED_KERNEL", kernel, 1);
      DecoderPair pair(header);
      ASSERT_EQ(pair.feed(c.before), "");
      ASSERT_EQ(pair.feed(c.batch), "");
      EXPECT_EQ(pair.last_tags.size(), c.tags);
      const std::string last = describe(pair.plain().log.back(), header);
      EXPECT_EQ(last.starts_with("drop internal imbalanced lock "), *c.drop != '\0') << last;
      EXPECT_TRUE(last.ends_with(c.drop)) << last;
    }
  }
}

// Where later spans see more, the last byte offset is the one to begin from. A sync anchors the
// next data of its channel, also where only later spans have it, but not after another sync.
TEST(PackedSameness, LockSearchByHand) {
  const Bytes before(20, 0x40), sync0(kSync0.begin(), kSync0.end() - 1);
  const Bytes late_data0 = Bytes(65'500, 0x40) + Bytes(60, 0x00);
  const struct {
    timing::Mode mode;
    std::uint8_t mask;
    Bytes bytes;
    const char* event;
  } cases[] = {
      {timing::Mode::external, 3, before + kSync1 + sync0 + late_data0,
       "locked bits=5 drop_bytes=20 bit_offset=0 raw_bytes=65581"},
      {timing::Mode::external, 3, Bytes(50, 0x40) + before + kSync1 + sync0 + late_data0,
       "locked bits=5 drop_bytes=64 bit_offset=0 raw_bytes=65587"},
      {timing::Mode::external, 3, before + sync0 + kSync1 + late_data0,
       "no alignment bits=5 width=8 raw_bytes=65601"},
      {timing::Mode::internal, 1, Bytes(99) + kSync0 + Bytes(65'600),
       "locked bits=5 drop_bytes=16 bit_offset=0 raw_bytes=65694"},
      {timing::Mode::internal, 3, kSync0 + kSync1 + Bytes(9),
       "reject internal alignment drop_bytes=0 bit_offset=0 synced=2/2 min=1 max=10 total=11"},
  };
  for (const auto& c : cases) {
    DecoderPair pair(byte_header(c.mode, c.mask));
    EXPECT_EQ(pair.feed(c.bytes), "");
    EXPECT_EQ(describe(pair.plain().log.at(0), byte_header(c.mode, c.mask)), c.event);
  }
}

}  // namespace
}  // namespace orvo::tests
