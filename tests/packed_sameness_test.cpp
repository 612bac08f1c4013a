// The packed-delta decoder against the plain one: generated, damaged and random streams, every
// width, mask and mode, both kernels, compared after every feed; and the lock search alone.
//
// ORVO_SAMENESS_RECORDS: at least so many records (default: what 400 streams have).
// ORVO_SAMENESS_FACTOR multiplies the searches (default 1).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <utility>

#include "support/decoder_pair.h"
#include "support/packed_streams.h"

namespace orvo::tests {
namespace {

using Kind = timing::LockEvent::Kind;

std::uint64_t setting(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

/// Noise, or bytes of one value, which repeat sync starts or inactive channels from end to end; and
/// perhaps a stream between them.
Bytes senseless_bytes(PackedStreams& random, const timing::StreamFileHeader& header,
                      std::size_t size) {
  constexpr std::uint8_t kBytes[] = {0x00, 0xFF, 0x55, 0xAA, 0xDF, 0x7F, 0x3F, 0xFC};
  Bytes bytes(size, kBytes[random.below(std::size(kBytes))]);
  if (random.one_in(4)) {
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random.below(256));
  }
  if (size > 0 && random.one_in(2)) {
    const Bytes stream = random.stream(header, random.below(500), 0);
    const auto at = static_cast<std::ptrdiff_t>(random.below(size));
    bytes.insert(bytes.begin() + at, stream.begin(), stream.end());
  }
  return bytes;
}

Bytes some_stream(PackedStreams& random, const timing::StreamFileHeader& header, std::size_t size) {
  if (random.one_in(8)) return senseless_bytes(random, header, size);
  return random.stream(header, size, random.one_in(3) ? 0 : 20U << random.below(8));
}

// Short streams, whose lock searches are cheap, show the faults; few long ones bring the records.
TEST(PackedSameness, EveryFeed) {
  constexpr std::uint64_t kRounds = 400;
  const std::uint64_t budget = setting("ORVO_SAMENESS_RECORDS", 0);
  PackedStreams random(1);
  std::map<Kind, std::uint64_t> kinds;
  std::uint64_t records = 0;
  for (std::uint64_t round = 0; round < kRounds || records < budget; ++round) {
    const timing::StreamFileHeader header = random.header();
    const bool is_long = round % 20 == 0 || round > kRounds;
    const std::size_t size = is_long ? std::clamp<std::size_t>(budget / 100, 100'000, 8'000'000)
                                     : 100 + random.below(random.one_in(20) ? 7000 : 1500);
    const Bytes stream =
        is_long ? random.stream(header, size, 0) : some_stream(random, header, size);
    const std::size_t mean_chunk = is_long ? size / 4 : size / (1 + random.below(8));
    setenv("ORVO_PACKED_KERNEL", random.one_in(2) ? "portable" : "", 1);
    DecoderPair pair(header);
    bool first = true;
    const auto next_bytes = [&] {
      return std::exchange(first, false) && is_long ? 2000 : random.below(2 * mean_chunk);
    };
    ASSERT_EQ(pair.feed_in_chunks(stream, next_bytes), "")
        << "round " << round << ", " << timing::detail::stream_header_to_json(header);
    records += pair.plain().records_decoded;
    for (const timing::LockEvent& event : pair.plain().log) ++kinds[event.kind];
  }
  unsetenv("ORVO_PACKED_KERNEL");
  std::cout << records << " records";
  // The others need thousands of bytes without a lock or tags in a batch, and have tests below.
  for (auto kind = static_cast<int>(Kind::rejected_alignment);
       kind < static_cast<int>(Kind::imbalanced); ++kind) {
    std::cout << ", " << kinds[static_cast<Kind>(kind)];
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
  for (const auto& [kernel, tags0, tags1, drops] : {std::tuple("", 4095, 0, false),
                                                    {"portable", 4096, 0, true},
                                                    {"portable", 3648, 456, false},
                                                    {"", 3648, 456, false},
                                                    {"portable", 3649, 456, true},
                                                    {"", 3649, 456, true}}) {
    SCOPED_TRACE(testing::Message() << tags0 << ':' << tags1);
    setenv("ORVO_PACKED_KERNEL", kernel, 1);
    DecoderPair pair(byte_header(timing::Mode::internal, 3));
    ASSERT_EQ(pair.feed(kSync0 + kSync1), "");
    Bytes batch(static_cast<std::size_t>(tags0), 0x01);
    batch.resize(batch.size() + static_cast<std::size_t>(tags1), 0x41);
    ASSERT_EQ(pair.feed(batch), "");
    EXPECT_EQ(pair.last_tags.size(), drops ? 0 : batch.size());
    EXPECT_EQ(pair.plain().log.size(), drops ? 2U : 1U);
    if (drops && tags1 > 0) {
      EXPECT_EQ(describe(pair.plain().log.back(), byte_header(timing::Mode::internal, 3)),
                "drop internal imbalanced lock min=456 max=3649 total=4105 records=4105");
    }
  }
}

// Events of a channel before its first sync are none of the batch's tags.
TEST(PackedSameness, NoImbalanceByUnsyncedChannels) {
  DecoderPair pair(byte_header(timing::Mode::internal, 3));
  Bytes stream(3000, 0x01);
  stream[0] = 0x3F;
  stream.resize(33'000, 0x41);
  std::copy_n(kSync1.begin(), 10, stream.begin() + 31'000);
  ASSERT_EQ(pair.feed(stream), "");
  EXPECT_EQ(pair.plain().log.size(), 1U);
  EXPECT_EQ(pair.last_tags.size(), 2990U + 1990U);
}

/// What a decoder says first of a buffer; both have to agree.
std::string first_event(const Bytes& buffer, const timing::StreamFileHeader& header) {
  DecoderPair pair(header);
  EXPECT_EQ(pair.feed(buffer), "")
      << buffer.size() << " bytes, " << timing::detail::stream_header_to_json(header);
  return pair.plain().log.empty() ? "none" : describe(pair.plain().log.front(), header);
}

TEST(PackedSameness, LockSearchAlone) {
  PackedStreams random(2);
  std::map<std::string, std::uint64_t> outcomes;  // by their first word
  const auto look = [&](std::size_t size, bool clean = false) {
    timing::StreamFileHeader header = random.header();
    Bytes buffer = clean              ? random.stream(header, size + 20, 0)
                   : random.one_in(2) ? senseless_bytes(random, header, size + 20)
                                      : some_stream(random, header, size + 20);
    if (random.one_in(40)) header.channel_mask = 0x30;  // not 0, yet no channel is active
    buffer.resize(size);
    const std::string outcome = first_event(buffer, header);
    ++outcomes[outcome.substr(0, outcome.find(' '))];
    return !HasFailure();
  };
  for (std::uint64_t pass = setting("ORVO_SAMENESS_FACTOR", 1); pass > 0; --pass) {
    for (std::size_t k = 0; k <= 3000; ++k) ASSERT_TRUE(look(k / 10));
    for (int k = 0; k < 20; ++k) ASSERT_TRUE(look(4096 - 10 + random.below(20)));
    // Above 65,536 bytes a later start sees more records: on a clean stream the last one wins.
    for (int k = 0; k < 2; ++k) ASSERT_TRUE(look(65'536 - 20 + random.below(100), k == 0));
    ASSERT_TRUE(look(1U << 20, true));
  }
  for (const char* outcome : {"locked", "reject", "no", "none"}) {
    std::cout << '"' << outcome << "\": " << outcomes[outcome] << "\n";
    EXPECT_GT(outcomes[outcome], 0U);
  }
}

// Where later spans see more, the last byte offset is the one to begin from.
TEST(PackedSameness, LockSearchByHand) {
  // A sync that another follows before any data anchors none of it, even where the first span ends
  // after both and only later spans have the data.
  const Bytes syncs =
      Bytes(kSync0.begin(), kSync0.end() - 1) + Bytes(kSync1.begin(), kSync1.end() - 1);
  const Bytes buffer = Bytes(65'536 - syncs.size()) + syncs + Bytes(10, 0x00) + Bytes(20, 0x40) +
                       Bytes(syncs.begin(), syncs.begin() + 10) + Bytes(24, 0x00);
  EXPECT_EQ(first_event(buffer, byte_header(timing::Mode::external, 3)),
            "locked bits=5 drop_bytes=64 bit_offset=0 raw_bytes=65536");
  EXPECT_EQ(first_event(Bytes(99) + kSync0 + Bytes(65'600), byte_header(timing::Mode::internal, 1)),
            "locked bits=5 drop_bytes=16 bit_offset=0 raw_bytes=65694");
  EXPECT_EQ(first_event(kSync0 + kSync1 + Bytes(9), byte_header(timing::Mode::internal, 3)),
            "reject internal alignment drop_bytes=0 bit_offset=0 synced=2/2 min=1 max=10 total=11");
}

}  // namespace
}  // namespace orvo::tests
