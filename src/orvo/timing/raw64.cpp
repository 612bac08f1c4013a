// Raw64 records: eight bytes, big-endian, in one of two layouts. Nothing marks where they begin, so
// the scan goes on byte by byte over whatever is not a valid record.

#include <algorithm>
#include <cctype>

#include "orvo/timing/big_endian.h"
#include "orvo/timing/fine_table.h"
#include "orvo/timing/instrument_time.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {
namespace {

constexpr std::size_t kRecordBytes = 8;
constexpr unsigned kChannelShift = 61;

// Picosecond layout: 0, channel (2), zeros (17), time in ps (44).
constexpr std::uint64_t kPsFixedBits = 0x9FFF'F000'0000'0000;
constexpr std::uint64_t kPsTimeMask = 0x0000'0FFF'FFFF'FFFF;

// Coarse/fine layout: 0, channel (2), marker A5C3 (16), coarse count (32), fine count (13).
constexpr std::uint64_t kCoarseFineFixedBits = 0x9FFF'E000'0000'0000;
constexpr std::uint64_t kCoarseFineMarker = 0x14B8'6000'0000'0000;
static_assert(kCoarseFineMarker == 0xA5C3ULL << 45);
constexpr unsigned kCoarseShift = 13;
constexpr std::uint64_t kFineMask = detail::kFineTableSize - 1;
constexpr std::uint64_t kCoarseWrap = 1ULL << 32;

bool is_coarse_fine(std::string_view tag_format) {
  constexpr std::string_view kName = "raw_cf";
  return std::equal(
      tag_format.begin(), tag_format.end(), kName.begin(), kName.end(),
      [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
}

/// Scans `bytes` and hands each valid record to `decode`; returns how many bytes are done.
template <typename Decode>
std::size_t scan(std::span<const std::uint8_t> bytes, std::uint64_t fixed_bits,
                 std::uint64_t fixed_value, const Decode& decode) {
  std::size_t position = 0;
  while (bytes.size() - position >= kRecordBytes) {
    const std::uint64_t record = detail::load_big_endian_64(bytes.data() + position);
    if ((record & fixed_bits) == fixed_value) {
      decode(static_cast<std::uint8_t>(record >> kChannelShift & 3), record);
      position += kRecordBytes;
    } else {
      ++position;
    }
  }
  return position;
}

}  // namespace

std::span<const TimeTag> StreamDecoder::feed_raw64() {
  TimeTag* const tags = tags_.room_for(input_buffer.size() / kRecordBytes);
  return tags_.first(is_coarse_fine(header_.raw64_tag_format) ? decode_raw64_coarse_fine(tags)
                                                              : decode_raw64_ps(tags));
}

std::size_t StreamDecoder::decode_raw64_ps(TimeTag* tags) {
  TimeTag* end = tags;
  const auto decode = [&](std::uint8_t channel, std::uint64_t record) {
    RawChannel& state = raw_[channel];
    const std::uint64_t time_ps = (record & kPsTimeMask) % detail::kWrapPs;
    if (state.seen && time_ps < state.last && state.last - time_ps > detail::kWrapPs / 2) {
      state.epoch += detail::kWrapPs;
    }
    state.last = time_ps;
    state.seen = true;
    *end++ = {channel, static_cast<std::int64_t>(time_ps + state.epoch)};
  };
  input_buffer.remove_front(scan(input_buffer.bytes(), kPsFixedBits, 0, decode));
  return static_cast<std::size_t>(end - tags);
}

std::size_t StreamDecoder::decode_raw64_coarse_fine(TimeTag* tags) {
  TimeTag* end = tags;
  const auto decode = [&](std::uint8_t channel, std::uint64_t record) {
    RawChannel& state = raw_[channel];
    const std::uint64_t coarse = record >> kCoarseShift & (kCoarseWrap - 1);
    if (state.seen && coarse < state.last && state.last - coarse > kCoarseWrap / 2) {
      state.epoch += kCoarseWrap;
    }
    state.last = coarse;
    state.seen = true;
    const auto fine_ps = static_cast<std::uint64_t>(fine_table_[record & kFineMask]);
    *end++ = {channel, static_cast<std::int64_t>((coarse + state.epoch) * detail::kCoarsePeriodPs -
                                                 fine_ps)};
  };
  input_buffer.remove_front(
      scan(input_buffer.bytes(), kCoarseFineFixedBits, kCoarseFineMarker, decode));
  return static_cast<std::size_t>(end - tags);
}

}  // namespace orvo::timing
