// A driver library inside this program that has all bytes ready: what a capture costs besides it is
// the capture's own. It defines the ot_ operations; all succeed.
#pragma once

#include <cstdint>

namespace orvo::benchmarks {

/// From now on reads return `read_bytes` (at most 1 MiB) at once, `total_bytes` in all, and then
/// time out.
void prepare_driver(std::uint64_t total_bytes, std::uint64_t read_bytes);

}  // namespace orvo::benchmarks
