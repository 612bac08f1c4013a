#include "orvo/timing/packed/turning_points.h"

#include <algorithm>
#include <cstring>

namespace orvo::timing::detail {
namespace {

/// A run of so many ones has a whole byte of ones in it, wherever it begins.
constexpr unsigned kOnesWithWholeByte = 15;

/// The first word of 128 bits shifted left by `shift`, 1 to 63.
std::uint64_t shifted(std::uint64_t word, std::uint64_t following, unsigned shift) {
  return word << shift | following >> (64 - shift);
}

/// Whether a byte of the word is all ones. May also say so if a byte lacks only its last bit.
bool has_byte_of_ones(std::uint64_t word) {
  constexpr std::uint64_t kLastBits = 0x0101010101010101;
  return ((~word - kLastBits) & word & kLastBits << 7) != 0;
}

/// A record starts a sync if two bits of channel are followed by ones, the flag and the payload.
std::uint64_t sync_starts(std::uint64_t word, std::uint64_t following, const PackedFormat& format) {
  const unsigned ones = format.bits + 1;
  if (ones >= kOnesWithWholeByte && !has_byte_of_ones(word) && !has_byte_of_ones(following)) {
    return 0;
  }
  // A bit of `word` says whether a run of at least `length` ones begins there; so does a bit of
  // `following`, as far as the run ends inside it. No record of `word` reaches its last 30 bits.
  for (unsigned length = 1; length < ones;) {
    const unsigned more = std::min(length, ones - length);
    word &= shifted(word, following, more);
    following &= following << more;
    length += more;
  }
  return shifted(word, following, 2);
}

std::uint64_t inactive_records(std::uint64_t word, std::uint64_t following,
                               const PackedFormat& format) {
  if (format.active_channels == 4) {
    return 0;
  }
  const std::uint64_t high = word;
  const std::uint64_t low = shifted(word, following, 1);
  std::uint64_t records = 0;
  for (unsigned channel = 0; channel < 4; ++channel) {
    if (!format.active(channel)) {
      records |= ((channel & 2) != 0 ? high : ~high) & ((channel & 1) != 0 ? low : ~low);
    }
  }
  return records;
}

}  // namespace

std::uint64_t BitView::last_from(std::size_t byte) const {
  std::array<std::uint8_t, sizeof(std::uint64_t)> last{};
  if (byte < bytes_.size()) {
    std::memcpy(last.data(), bytes_.data() + byte, bytes_.size() - byte);
  }
  return load_big_endian_64(last.data());
}

TurningPoints::TurningPoints(const BitView& bits, std::uint64_t end, const PackedFormat& format)
    : width_(format.width) {
  const std::uint64_t positions = end < width_ ? 0 : end - width_ + 1;
  std::uint64_t following = bits.from(0);
  for (std::uint64_t position = 0; position < positions; position += 64) {
    const std::uint64_t word = following;
    following = bits.from(position + 64);
    std::uint64_t points =
        sync_starts(word, following, format) | inactive_records(word, following, format);
    if (positions - position < 64) {
      points &= ~(~std::uint64_t{0} >> (positions - position));
    }
    if (points != 0) {
      words_[used_++] = {points, static_cast<std::uint32_t>(position),
                         static_cast<std::uint32_t>(position % width_)};
    }
  }
}

}  // namespace orvo::timing::detail
