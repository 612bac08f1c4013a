// Decoding alone, with the lock held: against the cost of storing as many tags, and against the
// plain decoder.

#include <array>
#include <stdexcept>

#include "kernels.h"
#include "orvo/timing/stream_decoder.h"
#include "streams.h"
#include "support/plain_decoder.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

constexpr std::size_t kPlainChunks = 16;
// Enough for every channel's first sync, and little to search for a lock in.
constexpr std::size_t kLockBytes = 512;

void append(FastDecoder& decoder, std::span<const std::uint8_t> bytes) { decoder.append(bytes); }

void append(tests::PlainDecoder& decoder, std::span<const std::uint8_t> bytes) {
  decoder.input_buffer.insert(decoder.input_buffer.end(), bytes.begin(), bytes.end());
}

bool locked(const FastDecoder& decoder) { return decoder.locked(); }
bool locked(const tests::PlainDecoder& decoder) { return decoder.locked; }

/// Seconds a record. The lock is taken and all memory touched before.
template <typename Decoder>
double decode_seconds(Decoder& decoder, const PackedStream& stream, std::size_t chunks) {
  const auto feed = [&] {
    auto tags = decoder.feed_packed_delta();
    benchmark::DoNotOptimize(tags.data());
  };
  append(decoder, stream.warm_up().first(kLockBytes));
  feed();
  append(decoder, stream.warm_up().subspan(kLockBytes));
  feed();
  double seconds = 0;
  for (std::size_t k = 0; k < chunks; ++k) {
    append(decoder, stream.chunk(k));
    seconds += seconds_of(feed);
    if (!locked(decoder)) {
      throw std::logic_error("the lock was lost");
    }
  }
  return seconds / (kRecordsPerChunk * static_cast<double>(chunks));
}

/// The least a plain decoder does: a channel and that channel's running time.
[[gnu::noinline]] void store_tags(timing::TimeTag* tags, std::size_t count,
                                  std::array<std::int64_t, 4>& times_ps) {
  for (std::size_t i = 0; i < count; ++i) {
    times_ps[i & 3] += 1'000'000;
    tags[i] = {static_cast<std::uint8_t>(i & 3), times_ps[i & 3]};
  }
}

/// Seconds a record for storing the tags of the stream, in batches as large as the decoder's.
double store_seconds(const PackedStream& stream) {
  timing::TagBuffer buffer;
  timing::TimeTag* const tags = buffer.room_for(static_cast<std::size_t>(kRecordsPerChunk) + 1);
  std::array<std::int64_t, 4> times_ps = {};
  const auto store = [&] {
    store_tags(tags, stream.tags_per_chunk, times_ps);
    benchmark::DoNotOptimize(tags);
    benchmark::ClobberMemory();
  };
  store();
  const double seconds = seconds_of([&] {
    for (std::size_t k = 0; k < kChunks; ++k) {
      store();
    }
  });
  return seconds / (kRecordsPerChunk * kChunks);
}

/// Of each record.
Figures measure(StreamKind kind, double hz) {
  const PackedStream& stream = packed_stream(kind);
  Figures figures;
  figures["timestamps"] = static_cast<double>(stream.tags_per_chunk) / kRecordsPerChunk;
  figures["bytes"] = kChunkBytes / kRecordsPerChunk;
  figures["timestamps_hz"] = 4 * hz;
  figures["store"] = store_seconds(stream);
  for (const std::string& kernel : kernels()) {
    figures[kernel] = decode_seconds(*make_decoder(stream.header, kernel), stream, kChunks);
  }
  tests::PlainDecoder plain(stream.header);
  figures["plain"] = decode_seconds(plain, stream, kPlainChunks);
  return figures;
}

struct Stream {
  StreamKind kind;
  std::string benchmark;
  std::string name;
  double hz;             // of each channel
  double portable_goal;  // times the cost of storing, like the next
  double wide_goal;
};

}  // namespace

void add_decoding(Table& table) {
  const std::vector<Stream> streams = {
      {StreamKind::khz100, "decode/a", "(a) 4 x 100 kHz", 1e5, 3.9, 2},
      {StreamKind::mhz1, "decode/b", "(b) 4 x 1 MHz", 1e6, 3.9, 2},
      {StreamKind::mhz2, "decode/c", "(c) 4 x 2 MHz", 2e6, 2.5, 1.3},
  };
  // About 2.5 and 5 times, with the twentieth by which a machine differs from itself, where the
  // plain decoder takes about ten times what storing the tags does.
  constexpr double kPortableSpeedup = 2.4;
  constexpr double kWideSpeedup = 4.75;
  constexpr double kIrregularSpeedup = 2.4;
  for (const Stream& stream : streams) {
    add_benchmark(stream.benchmark, [stream] { return measure(stream.kind, stream.hz); });
    for (const std::string& kernel : kernels()) {
      const bool portable = kernel == "portable";
      const std::string what = "decode " + stream.name + ", " + kernel;
      table.add(Speed{what + ", in memory", stream.benchmark, kernel});
      table.add(Row{what + ": cost",
                    "storing the tags",
                    {{stream.benchmark, kernel, "store"}},
                    at_most(portable ? stream.portable_goal : stream.wide_goal)});
      table.add(Row{what + ": speed",
                    "plain decoder",
                    {{stream.benchmark, "plain", kernel}},
                    at_least(portable ? kPortableSpeedup : kWideSpeedup)});
    }
    table.add(
        Absolute{"plain decoder " + stream.name, stream.benchmark, "plain", 1e9, "ns/record"});
    table.add(
        Absolute{"storing the tags " + stream.name, stream.benchmark, "store", 1e9, "ns/record"});
  }
  add_benchmark("decode/d", [] { return measure(StreamKind::irregular, 0); });
  for (const std::string& kernel : kernels()) {
    table.add(Row{"decode (d) irregular order, " + kernel + ": speed",
                  "plain decoder",
                  {{"decode/d", "plain", kernel}},
                  at_least(kIrregularSpeedup)});
  }
}

}  // namespace orvo::benchmarks
