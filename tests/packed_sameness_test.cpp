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
#include <map>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "orvo/timing/packed_alignment.h"
#include "orvo/timing/stream_decoder.h"
#include "support/packed_streams.h"
#include "support/plain_decoder.h"

namespace orvo::tests {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint64_t setting(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}
std::uint64_t factor() { return setting("ORVO_SAMENESS_FACTOR", 1); }
std::uint64_t seed() { return setting("ORVO_SAMENESS_SEED", 1); }

bool same_state(const timing::detail::PackedState& fast, const PlainLock& plain) {
  const auto same = [](std::uint64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(a) == b;
  };
  for (std::size_t c = 0; c < 4; ++c) {
    const auto& channel = fast.channels[c];
    if (channel.timed != plain.pk_have_time[c] || channel.overflow != plain.pk_overflow[c] ||
        (channel.timed && channel.last_time_ps != plain.pk_last_time[c])) {
      return false;
    }
  }
  const bool pending = fast.pending_sync_channel != timing::detail::PackedState::kNoChannel;
  return same(fast.sync_records_left, plain.sync_chunks_left) &&
         (plain.sync_chunks_left == 0 ||
          (same(fast.sync_channel, plain.sync_channel) && fast.sync_value == plain.sync_value &&
           fast.sync_bits == plain.sync_bits)) &&
         pending == (plain.pending_sync_channel >= 0) &&
         (!pending || (same(fast.pending_sync_channel, plain.pending_sync_channel) &&
                       fast.pending_sync_time_ps == plain.pending_sync_time));
}

/// Both decoders on one stream.
class Pair {
 public:
  explicit Pair(const timing::StreamFileHeader& header) : fast_(header), plain_(header) {}

  /// Names what differs after the feed; empty when nothing does.
  std::string feed(std::span<const std::uint8_t> bytes) {
    const std::uint64_t lines_before = plain_.debug_lines;
    fast_.input_buffer.append(bytes);
    plain_.input_buffer.insert(plain_.input_buffer.end(), bytes.begin(), bytes.end());
    testing::internal::CaptureStderr();
    const std::span<const timing::TimeTag> fast_tags = fast_.feed_packed_delta();
    const std::string fast_lines = testing::internal::GetCapturedStderr();
    const std::vector<timing::TimeTag> plain_tags = plain_.feed_packed_delta();
    tags_ += plain_tags.size();

    std::string plain_lines;
    for (std::uint64_t k = lines_before; k < plain_.debug_lines; ++k) {
      plain_lines += "packed-decoder: " + plain_.log[k] + "\n";
    }
    const std::span<const std::uint8_t> left = fast_.input_buffer.bytes();
    if (fast_lines != plain_lines) return "lines\n" + fast_lines + "instead of\n" + plain_lines;
    if (!std::equal(fast_tags.begin(), fast_tags.end(), plain_tags.begin(), plain_tags.end(),
                    [](const auto& a, const auto& b) {
                      return a.channel == b.channel && a.time_ps == b.time_ps;
                    })) {
      return "tags";
    }
    if (fast_.locked() != plain_.locked || fast_.bit_offset() != plain_.bit_offset) return "lock";
    if (Bytes(left.begin(), left.end()) != plain_.input_buffer) return "remaining bytes";
    return same_state(fast_.packed_state(), plain_) ? "" : "state";
  }

  [[nodiscard]] const PlainDecoder& plain() const { return plain_; }
  [[nodiscard]] std::uint64_t tags() const { return tags_; }

 private:
  timing::StreamDecoder fast_;
  PlainDecoder plain_;
  std::uint64_t tags_ = 0;
};

class PackedSameness : public testing::Test {
 protected:
  void SetUp() override { setenv("ORVO_PACKED_DEBUG", "", 1); }
  void TearDown() override { unsetenv("ORVO_PACKED_DEBUG"); }
};

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
TEST_F(PackedSameness, EveryFeed) {
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
    Pair pair(header);
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t chunk = is_long && at == 0 ? 2000 : random.below(2 * mean_chunk);
      const std::size_t end = std::min(at + chunk, stream.size());
      const std::string difference = pair.feed({stream.data() + at, stream.data() + end});
      ASSERT_EQ(difference, "") << "round " << round << ", bytes " << at << " to " << end << ", "
                                << timing::detail::stream_header_to_json(header);
      at = end;
    }
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
TEST_F(PackedSameness, LongStreams) {
  const std::uint64_t budget = setting("ORVO_SAMENESS_RECORDS", 1'000'000);
  PackedStreams random(seed() + 2'000'000);
  std::uint64_t records = 0, tags = 0;
  while (records < budget) {
    const timing::StreamFileHeader header = random.header();
    Bytes stream = random.stream(header, budget < 100'000'000 ? 200'000 : 8'000'000, 0, false);
    if (random.one_in(3)) stream[random.below(stream.size())] ^= 4;
    Pair pair(header);
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t end =
          std::min(at + (at == 0 ? 2000 : random.below(1 << 20)), stream.size());
      ASSERT_EQ(pair.feed({stream.data() + at, stream.data() + end}), "")
          << "bytes " << at << " to " << end << ", "
          << timing::detail::stream_header_to_json(header);
      at = end;
    }
    records += pair.plain().records_decoded;
    tags += pair.tags();
  }
  std::cout << records << " records, " << tags << " tags\n";
}

// Widths of five bits make a record a byte.
TEST_F(PackedSameness, LimitsOfLinesAndBuffer) {
  timing::StreamFileHeader header;
  header.channel_mask = 1;
  header.delta_bits = 5;
  Pair pair(header);
  const Bytes sync_and_data = {0x3F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  const Bytes inactive = {0x40};
  const Bytes zeros(65'536);
  ASSERT_EQ(pair.feed(zeros), "");
  EXPECT_EQ(pair.plain().input_buffer.size(), 65'536U);
  ASSERT_EQ(pair.feed({zeros.data(), 1}), "");
  EXPECT_EQ(pair.plain().input_buffer.size(), 4'096U);
  for (int k = 0; k < 105; ++k) {
    ASSERT_EQ(pair.feed(sync_and_data), "") << k;
    ASSERT_EQ(pair.feed(inactive), "") << k;
  }
  EXPECT_EQ(pair.plain().log.size(), 212U);
  EXPECT_EQ(pair.plain().debug_lines, 200U);
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

TEST_F(PackedSameness, LockSearchAlone) {
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

}  // namespace
}  // namespace orvo::tests
