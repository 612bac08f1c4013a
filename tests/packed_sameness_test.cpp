// The packed-delta decoder against the plain one: generated, damaged and random streams, every
// width, mask and mode, compared after every feed; and the lock search alone.
//
// ORVO_SAMENESS_FACTOR multiplies the amount of work (default 1: seconds when optimised), long
// streams also grow with it, up to 20-fold. ORVO_SAMENESS_SEED gives other streams (default 1).
// Each test prints what it has compared.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#include "orvo/timing/packed/alignment.h"
#include "support/decoder_pair.h"
#include "support/packed_streams.h"

namespace orvo::tests {
namespace {

std::uint64_t setting(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}
std::uint64_t factor() { return setting("ORVO_SAMENESS_FACTOR", 1); }
std::uint64_t seed() { return setting("ORVO_SAMENESS_SEED", 1); }

/// What the messages of the plain decoder begin with, all of which have to be met.
constexpr const char* kMessages[] = {"locked bits",         "no alignment",
                                     "reject internal",     "drop inactive",
                                     "drop ovf in sync",    "drop sync channel",
                                     "drop nonmonotonic",   "drop implausible sync",
                                     "drop implausible de", "drop internal imbalanced"};

Bytes some_stream(PackedStreams& random, const timing::StreamFileHeader& header, std::size_t size) {
  if (random.one_in(12)) return random.noise(size);
  Bytes stream =
      random.stream(header, size, random.one_in(3) ? 0 : 20U << random.below(8), random.one_in(4));
  while (random.one_in(2) && !stream.empty()) random.damage(stream);
  return stream;
}

// Short streams, whose lock searches are cheap, show the faults; few long ones bring the records
// and, with a channel slowed down, batches out of balance.
TEST(PackedSameness, EveryFeed) {
  PackedStreams random(seed());
  std::map<std::string, std::uint64_t> messages;
  std::uint64_t records = 0, tags = 0, search_steps = 0;
  for (std::uint64_t round = 0; round < 400 * factor(); ++round) {
    timing::StreamFileHeader header = random.header();
    const bool is_long = round % 40 == 0;
    const bool unbalanced = round % 80 == 0;
    if (unbalanced) {
      header.mode = timing::Mode::internal;
      header.channel_mask = 15;
      header.delta_bits = static_cast<std::uint8_t>(14 + random.below(18));
    }
    const std::size_t size = is_long ? 100'000 * std::min<std::uint64_t>(factor(), 20)
                                     : 100 + random.below(random.one_in(20) ? 7000 : 1500);
    const Bytes stream =
        is_long ? random.stream(header, size, 0, unbalanced) : some_stream(random, header, size);
    const std::size_t mean_chunk = is_long ? 32'768 : size / (1 + random.below(8));
    DecoderPair pair(header);
    bool first = true;
    const auto next_bytes = [&] {
      return std::exchange(first, false) && is_long ? 2000 : random.below(2 * mean_chunk);
    };
    ASSERT_EQ(pair.feed_in_chunks(stream, next_bytes), "")
        << "round " << round << ", " << timing::detail::stream_header_to_json(header);
    records += pair.plain().records_decoded;
    tags += pair.tags();
    search_steps += pair.plain().steps_searched;
    for (const std::string& line : pair.plain().log) {
      for (const char* message : kMessages) messages[message] += line.starts_with(message);
    }
  }
  std::cout << records << " records, " << tags << " tags, " << search_steps << " search steps";
  for (const char* message : kMessages) {
    std::cout << "; " << message << ": " << messages[message];
    EXPECT_GT(messages[message], 0U) << message;
  }
  std::cout << "\n";
}

// Records in bulk, a million unless ORVO_SAMENESS_RECORDS says otherwise: few locks are searched,
// which is what takes the plain decoder its time.
TEST(PackedSameness, LongStreams) {
  const std::uint64_t budget = setting("ORVO_SAMENESS_RECORDS", 1'000'000);
  PackedStreams random(seed() + 2'000'000);
  std::uint64_t records = 0, tags = 0;
  while (records < budget) {
    const timing::StreamFileHeader header = random.header();
    Bytes stream = random.stream(header, budget < 100'000'000 ? 200'000 : 8'000'000, 0, false);
    if (random.one_in(3)) stream[random.below(stream.size())] ^= 4;
    DecoderPair pair(header);
    bool first = true;
    const auto next_bytes = [&] {
      return std::exchange(first, false) ? 2000 : random.below(1 << 20);
    };
    ASSERT_EQ(pair.feed_in_chunks(stream, next_bytes), "")
        << timing::detail::stream_header_to_json(header);
    records += pair.plain().records_decoded;
    tags += pair.tags();
  }
  std::cout << records << " records, " << tags << " tags\n";
}

// Widths of five bits make a record a byte.
TEST(PackedSameness, LimitsOfLinesAndBuffer) {
  timing::StreamFileHeader header;
  header.channel_mask = 1;
  header.delta_bits = 5;
  DecoderPair pair(header);
  const Bytes sync_and_data = {0x3F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  const Bytes inactive = {0x40};
  const Bytes zeros(65'536);
  ASSERT_EQ(pair.feed(zeros), "");
  EXPECT_EQ(pair.plain().input_buffer.size(), 65'536U);
  ASSERT_EQ(pair.feed({zeros.data(), 1}), "");
  EXPECT_EQ(pair.plain().input_buffer.size(), 4'096U);
  setenv("ORVO_PACKED_DEBUG", "", 1);
  testing::internal::CaptureStderr();
  for (int k = 0; k < 105; ++k) {
    ASSERT_EQ(pair.feed(sync_and_data), "") << k;
    ASSERT_EQ(pair.feed(inactive), "") << k;
  }
  const std::string lines = testing::internal::GetCapturedStderr();
  unsetenv("ORVO_PACKED_DEBUG");
  EXPECT_EQ(pair.plain().log.size(), 212U);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 200);
}

// From 4,096 tags on, a batch in which a channel is silent is none of the calibration source's.
TEST(PackedSameness, LimitOfImbalance) {
  for (const std::size_t tags : {4095U, 4096U}) {
    timing::StreamFileHeader header;
    header.mode = timing::Mode::internal;
    header.channel_mask = 3;
    header.delta_bits = 5;
    DecoderPair pair(header);
    Bytes both_synced(22, 0x00);
    both_synced[0] = 0x3F;
    std::fill(both_synced.begin() + 11, both_synced.end(), 0x40);
    both_synced[11] = 0x7F;
    ASSERT_EQ(pair.feed(both_synced), "");
    ASSERT_EQ(pair.feed(Bytes(tags, 0x01)), "");
    EXPECT_EQ(pair.plain().log.size(), tags == 4096 ? 2U : 1U);
  }
}

// Events of a channel before its first sync are none of the batch's tags.
TEST(PackedSameness, NoImbalanceByUnsyncedChannels) {
  timing::StreamFileHeader header;
  header.mode = timing::Mode::internal;
  header.channel_mask = 3;
  header.delta_bits = 5;
  DecoderPair pair(header);
  Bytes stream(3000, 0x01);
  stream[0] = 0x3F;
  stream.resize(33'000, 0x41);
  stream[31'000] = 0x7F;
  std::fill_n(stream.begin() + 31'001, 9, std::uint8_t{0x40});
  ASSERT_EQ(pair.feed(stream), "");
  EXPECT_EQ(pair.plain().log.size(), 1U);
  EXPECT_EQ(pair.tags(), 2990U + 1990U);
}

// What the search found or refused, as text.
std::string fast_search(const Bytes& buffer, const timing::StreamFileHeader& header) {
  const timing::detail::PackedFormat format(header);
  const auto [found, rejected] = timing::detail::probe_packed_alignment(buffer, format);
  std::ostringstream out;
  if (found) {
    out << "found " << found->drop_bytes << " " << found->bit_offset;
  } else if (rejected) {
    out << "reject internal alignment drop_bytes=" << rejected->drop_bytes
        << " bit_offset=" << rejected->bit_offset << " synced=" << rejected->synced << "/"
        << format.active_channels << " min=" << rejected->min << " max=" << rejected->max
        << " total=" << rejected->total;
  }
  return out.str();
}

std::string plain_search(const Bytes& buffer, const timing::StreamFileHeader& header) {
  PlainDecoder decoder(header);
  decoder.input_buffer = buffer;
  const PlainDecoder::Alignment start = decoder.probe_packed_alignment();
  if (!start.found) return decoder.log.empty() ? "" : decoder.log.front();
  return "found " + std::to_string(start.drop_bytes) + " " + std::to_string(start.bit_offset);
}

TEST(PackedSameness, LockSearchAlone) {
  PackedStreams random(seed() + 1'000'000);
  std::map<std::string, std::uint64_t> outcomes;  // by their first word
  const auto compare = [&](std::size_t size, bool clean = false) {
    const timing::StreamFileHeader header = random.header();
    Bytes buffer =
        clean ? random.stream(header, size + 20, 0, false) : some_stream(random, header, size + 20);
    buffer.resize(size);
    buffer.shrink_to_fit();
    const std::string plain = plain_search(buffer, header);
    ++outcomes[plain.substr(0, plain.find(' '))];
    EXPECT_EQ(fast_search(buffer, header), plain)
        << size << " bytes, " << timing::detail::stream_header_to_json(header);
    return !HasFailure();
  };
  for (std::uint64_t pass = 0; pass < factor(); ++pass) {
    for (std::size_t size = 0; size <= 200; ++size) {
      for (int k = 0; k < 5; ++k) ASSERT_TRUE(compare(size));
    }
    for (int k = 0; k < 20; ++k) ASSERT_TRUE(compare(4096 - 10 + random.below(20)));
    // Above 65,536 bytes a later start sees more records: on a clean stream the last one wins.
    for (int k = 0; k < 2; ++k) ASSERT_TRUE(compare(65'536 - 20 + random.below(100), k == 0));
    ASSERT_TRUE(compare(1U << 20, true));
  }
  for (const char* outcome : {"found", "reject", ""}) {
    std::cout << '"' << outcome << "\": " << outcomes[outcome] << "\n";
    EXPECT_GT(outcomes[outcome], 0U);
  }
}

// Bytes of one value, which repeat sync starts or inactive channels from end to end: alone,
// damaged, or with a stream between them.
TEST(PackedSameness, LockSearchInRepeatedBytes) {
  PackedStreams random(seed() + 3'000'000);
  std::map<std::string, std::uint64_t> outcomes;  // by their first word
  for (std::uint64_t round = 0; round < 2000 * factor(); ++round) {
    constexpr std::uint8_t kBytes[] = {0x00, 0xFF, 0x55, 0xAA, 0xDF, 0x7F, 0x3F, 0xFC};
    const std::uint8_t byte = kBytes[round % std::size(kBytes)];
    timing::StreamFileHeader header = random.header();
    Bytes buffer(1 + random.below(random.one_in(40) ? 5000 : 300), byte);
    if (random.one_in(2)) {
      const Bytes stream = random.stream(header, random.below(500), 0, false);
      const auto at = static_cast<std::ptrdiff_t>(random.below(buffer.size()));
      buffer.insert(buffer.begin() + at, stream.begin(), stream.end());
    }
    while (random.one_in(2) && !buffer.empty()) random.damage(buffer);
    if (random.one_in(20)) header.channel_mask = 0x30;  // not 0, yet no channel is active
    const std::string plain = plain_search(buffer, header);
    ++outcomes[plain.substr(0, plain.find(' '))];
    ASSERT_EQ(fast_search(buffer, header), plain)
        << buffer.size() << " bytes, many of them " << unsigned{byte} << ", "
        << timing::detail::stream_header_to_json(header);
  }
  EXPECT_GT(outcomes["found"], 0U);
  EXPECT_GT(outcomes[""], 0U);
}

// A sync that another follows before any data anchors none of it, even where the first span ends
// after both and only later spans have the data. Widths of five bits make a record a byte.
TEST(PackedSameness, LockSearchAfterTheFirstSpan) {
  timing::StreamFileHeader header;
  header.mode = timing::Mode::external;
  header.channel_mask = 3;
  header.delta_bits = 5;
  const Bytes syncs = {0x3F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x7F, 64, 64, 64, 64, 64, 64, 64, 64, 64};
  Bytes buffer(65'536 - syncs.size());
  buffer.insert(buffer.end(), syncs.begin(), syncs.end());
  buffer.insert(buffer.end(), 10, 0x00);
  buffer.insert(buffer.end(), 20, 0x40);
  buffer.insert(buffer.end(), syncs.begin(), syncs.begin() + 10);
  buffer.insert(buffer.end(), 24, 0x00);
  const std::string plain = plain_search(buffer, header);
  EXPECT_EQ(plain, "found 64 0");
  EXPECT_EQ(fast_search(buffer, header), plain);
}

}  // namespace
}  // namespace orvo::tests
