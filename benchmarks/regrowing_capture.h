// The usual way to capture, as the thing to be better than: a chunk is a vector whose size tells
// how much was read, so that each one is cut after a short read and regrown, zeroed, for the next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvo::benchmarks {

/// Reads the driver until it times out and writes all bytes to `path`, on two threads. Returns
/// their number.
std::uint64_t regrowing_capture(const std::string& path, std::size_t chunk_bytes,
                                std::size_t queue_chunks);

}  // namespace orvo::benchmarks
