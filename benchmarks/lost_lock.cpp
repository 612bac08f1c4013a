// A damaged stream: the lock is lost and searched again in every chunk.

#include <stdexcept>

#include "kernels.h"
#include "streams.h"
#include "support/plain_decoder.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

constexpr std::size_t kPlainChunks = 3;

/// Seconds a chunk, with the search and with what the buffer does about bytes left over.
/// `feed` appends bytes, decodes them and reports whether the lock is still held.
template <typename Feed>
double seconds_per_chunk(const PackedStream& stream, std::size_t chunks, const Feed& feed) {
  if (!feed(stream.warm_up())) {
    throw std::logic_error("no lock was found");
  }
  std::size_t lost = 0;
  const double seconds = seconds_of([&] {
    for (std::size_t k = 0; k < chunks; ++k) {
      if (!feed(stream.chunk(k))) {
        ++lost;
      }
    }
  });
  if (lost != chunks) {
    throw std::logic_error("the lock was not lost in every chunk");
  }
  return seconds / static_cast<double>(chunks);
}

Figures measure() {
  const PackedStream& stream = packed_stream(StreamKind::damaged);
  Figures figures;
  for (const std::string& kernel : kernels()) {
    const auto decoder = make_decoder(stream.header, kernel);
    figures[kernel] = seconds_per_chunk(stream, kChunks, [&](auto bytes) {
      decoder->append(bytes);
      benchmark::DoNotOptimize(decoder->feed_packed_delta().data());
      return decoder->locked();
    });
  }
  tests::PlainDecoder plain(stream.header);
  figures["plain"] = seconds_per_chunk(stream, kPlainChunks, [&](auto bytes) {
    plain.input_buffer.insert(plain.input_buffer.end(), bytes.begin(), bytes.end());
    benchmark::DoNotOptimize(plain.feed_packed_delta().data());
    return plain.locked;
  });
  return figures;
}

}  // namespace

void add_lost_locks(Table& table) {
  constexpr double kSpeedup = 40;  // as the lock search at its worst width
  add_benchmark("decode/e", measure);
  for (const std::string& kernel : kernels()) {
    table.add(Row{"decode (e) lock lost in every chunk, " + kernel + ": speed",
                  "plain decoder",
                  {{"decode/e", "plain", kernel}},
                  at_least(kSpeedup)});
  }
}

}  // namespace orvo::benchmarks
