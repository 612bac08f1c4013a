// Packed-delta streams out of a seed: records as an instrument sends them, with others among them
// that a decoder has to notice. One seed and one compiler give the same streams again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "orvo/timing/stream_header.h"

namespace orvo::tests {

class PackedStreams {
 public:
  explicit PackedStreams(std::uint64_t seed) : random_(seed) {}

  std::uint64_t below(std::uint64_t end) { return random_() % end; }
  bool one_in(std::uint64_t n) { return below(n) == 0; }

  timing::StreamFileHeader header();

  /// About `bytes` bytes that start in mid-record. One record in `fault_interval` is not as an
  /// instrument sends it; 0 for none. In external mode channels past the first two may have no sync
  /// for long.
  std::vector<std::uint8_t> stream(const timing::StreamFileHeader& header, std::size_t bytes,
                                   std::uint64_t fault_interval);

 private:
  std::mt19937_64 random_;
};

}  // namespace orvo::tests
