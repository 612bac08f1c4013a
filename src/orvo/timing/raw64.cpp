#include "orvo/timing/raw64.h"

#include <algorithm>

#include "orvo/timing/byte_order.h"
#include "orvo/timing/instrument_time.h"
#include "orvo/timing/json_text.h"

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

/// Scans `input` and hands each valid record to `decode`, with its channel; consumes what is done.
template <typename Decode>
void scan(InputBuffer& input, std::uint64_t fixed_bits, std::uint64_t fixed_value,
          const Decode& decode) {
  const std::span<const std::uint8_t> bytes = input.bytes();
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
  input.remove_front(position);
}

}  // namespace

std::vector<std::int64_t> detail::default_fine_table() {
  constexpr auto kLargest = static_cast<std::int64_t>(kCoarsePeriodPs) - 1;
  std::vector<std::int64_t> table(kFineTableSize);
  for (std::size_t i = 0; i < table.size(); ++i) {
    table[i] = std::min((37 * static_cast<std::int64_t>(i) + 1) / 2, kLargest);
  }
  return table;
}

Raw64Decoder::Raw64Decoder(const StreamFileHeader& header) {
  if (detail::to_lower(header.raw64_tag_format) == "raw_cf") {
    fine_table_ = detail::default_fine_table();
  }
}

std::span<const TimeTag> Raw64Decoder::feed() {
  TimeTag* const tags = tags_.room_for(input_.size() / kRecordBytes);
  return tags_.first(fine_table_.empty() ? decode_ps(tags) : decode_coarse_fine(tags));
}

std::uint64_t Raw64Decoder::Channel::continued(std::uint64_t time, std::uint64_t wrap) {
  if (seen && time < last && last - time > wrap / 2) {
    epoch += wrap;
  }
  last = time;
  seen = true;
  return time + epoch;
}

std::size_t Raw64Decoder::decode_ps(TimeTag* tags) {
  TimeTag* end = tags;
  scan(input_, kPsFixedBits, 0, [&](std::uint8_t channel, std::uint64_t record) {
    const std::uint64_t time_ps = (record & kPsTimeMask) % detail::kWrapPs;
    *end++ = {channel,
              static_cast<std::int64_t>(channels_[channel].continued(time_ps, detail::kWrapPs))};
  });
  return static_cast<std::size_t>(end - tags);
}

std::size_t Raw64Decoder::decode_coarse_fine(TimeTag* tags) {
  TimeTag* end = tags;
  scan(input_, kCoarseFineFixedBits, kCoarseFineMarker,
       [&](std::uint8_t channel, std::uint64_t record) {
         const std::uint64_t coarse =
             channels_[channel].continued(record >> kCoarseShift & (kCoarseWrap - 1), kCoarseWrap);
         const auto fine_ps = static_cast<std::uint64_t>(fine_table_[record & kFineMask]);
         *end++ = {channel, static_cast<std::int64_t>(coarse * detail::kCoarsePeriodPs - fine_ps)};
       });
  return static_cast<std::size_t>(end - tags);
}

}  // namespace orvo::timing
