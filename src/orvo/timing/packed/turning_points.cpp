#include "orvo/timing/packed/turning_points.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace orvo::timing::detail {
namespace {

constexpr std::size_t kWords = TurningPoints::kWords;

/// The block and a word more: a record is at most 34 bits long, and may begin in the last bit.
using Window = std::array<std::uint64_t, kWords + 1>;

/// A run of so many ones covers a whole byte wherever it begins.
constexpr unsigned kRunWithFullByte = 15;

/// A multiple of 16, for the sake of has_full_byte: it may see more than it must.
using WindowBytes = std::array<std::uint8_t, 80>;
static_assert(sizeof(WindowBytes) >= sizeof(Window));

/// Without a branch for each word, so that compilers look at several at once.
bool has_full_byte(const WindowBytes& bytes) {
  constexpr std::uint64_t kLowBits = 0x0101010101010101;
  std::array<std::uint64_t, sizeof(WindowBytes) / 8> words;
  std::memcpy(words.data(), bytes.data(), sizeof words);
  std::uint64_t found = 0;
  for (const std::uint64_t word : words) {
    found |= (~word - kLowBits) & word;  // borrows into the top bit of a byte of ones
  }
  return (found & kLowBits << 7) != 0;
}

Window load_window(const WindowBytes& bytes) {
  Window window;
  for (std::size_t i = 0; i < window.size(); ++i) {
    window[i] = load_big_endian_64(bytes.data() + 8 * i);
  }
  return window;
}

/// Word `i` of the window moved left by `shift`, 1 to 63.
std::uint64_t moved(const Window& window, std::size_t i, unsigned shift) {
  return window[i] << shift | window[i + 1] >> (64 - shift);
}

/// Leaves the ones at which a run of at least `length` ones begins. Each step doubles the run
/// that a one stands for. The last word of the window loses what lies behind it, which is more
/// than any record of the block reaches into.
void keep_runs(Window& window, unsigned length) {
  for (unsigned known = 1; known < length;) {
    const unsigned step = std::min(known, length - known);
    for (std::size_t i = 0; i < kWords; ++i) {
      window[i] &= moved(window, i, step);
    }
    window[kWords] &= window[kWords] << step;
    known += step;
  }
}

/// Two bits of channel, then the flag and a payload of ones. True when there are any.
bool find_sync_starts(Window window, const PackedFormat& format, TurningPoints& points) {
  keep_runs(window, format.bits + 1);
  std::uint64_t any = 0;
  for (std::size_t i = 0; i < kWords; ++i) {
    points.sync_starts[i] = moved(window, i, 2);
    any |= points.sync_starts[i];
  }
  return any != 0;
}

bool find_inactive(const Window& window, const PackedFormat& format, TurningPoints& points) {
  std::array<std::uint64_t, 4> inactive;
  for (unsigned c = 0; c < 4; ++c) {
    inactive[c] = format.active(c) ? 0 : ~std::uint64_t{0};
  }
  std::uint64_t any = 0;
  for (std::size_t i = 0; i < kWords; ++i) {
    const std::uint64_t high = window[i];
    const std::uint64_t low = moved(window, i, 1);
    points.inactive[i] = (~high & ((~low & inactive[0]) | (low & inactive[1]))) |
                         (high & ((~low & inactive[2]) | (low & inactive[3])));
    any |= points.inactive[i];
  }
  return any != 0;
}

}  // namespace

bool find_turning_points(const BitView& bits, std::size_t byte, const PackedFormat& format,
                         TurningPoints& points) {
  const auto bytes = bits.copy<std::tuple_size_v<WindowBytes>>(byte);
  const bool may_start = format.bits + 1 < kRunWithFullByte || has_full_byte(bytes);
  const bool may_be_inactive = format.active_channels < 4;
  if (!may_start && !may_be_inactive) {
    return false;
  }
  const Window window = load_window(bytes);
  bool any = false;
  if (may_start) {
    any |= find_sync_starts(window, format, points);
  } else {
    points.sync_starts.fill(0);
  }
  if (may_be_inactive) {
    any |= find_inactive(window, format, points);
  } else {
    points.inactive.fill(0);
  }
  return any;
}

}  // namespace orvo::timing::detail
