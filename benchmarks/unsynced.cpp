// Records of channels that have had no sync under the lock yet. In external mode there may be many:
// the lock takes two synced channels, and the others stay as they are until their next sync.

#include <algorithm>
#include <random>
#include <stdexcept>

#include "kernels.h"
#include "orvo/timing/packed/record_groups.h"
#include "orvo/timing/packed/records.h"
#include "orvo/timing/stream_decoder.h"
#include "streams.h"
#include "support/plain_decoder.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

using timing::detail::PackedFormat;

constexpr std::size_t kBatches = 16;
constexpr unsigned kWidth = kDeltaBits + 3;
constexpr std::uint64_t kRecords = 8 * kChunkBytes / kWidth / 8 * 8;  // whole bytes
constexpr std::size_t kBatchBytes = kRecords / 8 * kWidth;

timing::StreamFileHeader header() {
  timing::StreamFileHeader header;
  header.mode = timing::Mode::external;
  return header;
}

/// kRecords records, no syncs: events of channels in random order, each with an overflow record.
std::vector<std::uint8_t> random_records() {
  std::mt19937_64 random(1);
  std::vector<std::uint8_t> bytes(kBatchBytes + timing::InputBuffer::kSlackBytes);
  std::size_t position = 0;
  const auto put = [&](std::uint64_t record) {
    for (unsigned bit = kWidth; bit-- > 0; ++position) {
      bytes[position / 8] |= static_cast<std::uint8_t>((record >> bit & 1) << (7 - position % 8));
    }
  };
  for (std::uint64_t event = 0; event < kRecords / 2; ++event) {
    const std::uint64_t value = random();
    const std::uint64_t channel = value >> 62 << (kDeltaBits + 1);
    put(channel | 1U << kDeltaBits | 1);
    put(channel | (value & 0xFFFF));
  }
  return bytes;
}

/// Seconds a record.
double decode_seconds(const std::vector<std::uint8_t>& bytes, unsigned unsynced,
                      const std::string& kernel) {
  const PackedFormat format(header());
  const auto groups =
      with_kernel(kernel, [&] { return timing::detail::RecordGroups::make(format); });
  timing::detail::PackedState state;
  for (unsigned c = unsynced; c < 4; ++c) {
    state.channels[c].last_time_ps = 0;
  }
  timing::TagBuffer buffer;
  timing::TimeTag* const tags = buffer.room_for(kRecords);
  std::fill_n(tags, kRecords, timing::TimeTag{});  // touched before the clock runs
  const double seconds = seconds_of([&] {
    for (std::size_t k = 0; k < kBatches; ++k) {
      const auto batch =
          decode_packed_records(bytes.data(), 0, kRecords, format, state, groups.get(), tags);
      if (batch.records != kRecords) {
        throw std::logic_error("the lock was lost");
      }
    }
  });
  return seconds / (kRecords * kBatches);
}

double plain_seconds(const std::vector<std::uint8_t>& bytes, unsigned unsynced) {
  tests::PlainDecoder plain(header());
  plain.locked = true;
  for (unsigned c = unsynced; c < 4; ++c) {
    plain.pk_have_time[c] = true;
  }
  double seconds = 0;
  for (std::size_t k = 0; k < kBatches; ++k) {
    plain.input_buffer.assign(bytes.begin(), bytes.begin() + kBatchBytes);
    seconds += seconds_of([&] { benchmark::DoNotOptimize(plain.feed_packed_delta().data()); });
    if (!plain.locked) {
      throw std::logic_error("the lock was lost");
    }
  }
  return seconds / (kRecords * kBatches);
}

}  // namespace

void add_unsynced_channels(Table& table) {
  constexpr double kSpeedup = 2.4;  // as with all channels synced
  std::vector<std::string> benchmarks;
  for (unsigned unsynced = 0; unsynced <= 4; ++unsynced) {
    benchmarks.push_back("decode/g, " + std::to_string(unsynced) + " unsynced");
    add_benchmark(benchmarks.back(), [unsynced] {
      static const std::vector<std::uint8_t> bytes = random_records();
      Figures figures;
      for (const std::string& kernel : kernels()) {
        figures[kernel] = decode_seconds(bytes, unsynced, kernel);
      }
      figures["plain"] = plain_seconds(bytes, unsynced);
      return figures;
    });
  }
  for (const std::string& kernel : kernels()) {
    std::vector<Ratio> ratios;
    for (const std::string& name : benchmarks) {
      ratios.push_back({name, "plain", kernel});
    }
    table.add(Row{"decode (g) channels without a sync, " + kernel + ": speed", "plain decoder",
                  ratios, at_least(kSpeedup)});
  }
}

}  // namespace orvo::benchmarks
