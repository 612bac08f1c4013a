// The packed-delta decoder against the plain one, compared after every feed: generated, damaged and
// random streams, every width, mask and mode, both kernels; and limits that few of those meet.
//
// ORVO_SAMENESS_RECORDS: go on until there were so many records (default: those of 3,000 streams).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <string>

#include "orvo/timing/packed/record_groups.h"
#include "support/decoder_pair.h"
#include "support/packed_streams.h"

namespace orvo::tests {
namespace {

using Kind = timing::LockEvent::Kind;

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

// From 4,096 tags on, a batch in which a channel has less than an eighth of another's is none of
// the calibration source's.
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
      // Events of a channel before its first sync are none of the batch's tags.
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
