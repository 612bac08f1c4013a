// Raw64 records: eight bytes, big-endian, in one of two layouts. Nothing marks where they begin, so
// eight bytes that are no valid record are scanned byte by byte.
//
// Threads: a decoder belongs to the one thread that feeds it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {

namespace detail {

/// One entry for each 13-bit fine count.
inline constexpr std::size_t kFineTableSize = 8192;

/// Picoseconds by which a fine count lies before its coarse clock edge: kFineTableSize entries of
/// 0 to kCoarsePeriodPs - 1, 18.5 ps a count, rounded half up and capped.
[[nodiscard]] std::vector<std::int64_t> default_fine_table();

}  // namespace detail

class Raw64Decoder final : public StreamDecoder {
 public:
  /// The layout is coarse and fine counts where the header's raw64_tag_format is "raw_cf" in any
  /// case, picoseconds otherwise.
  explicit Raw64Decoder(const StreamFileHeader& header);

  std::span<const TimeTag> feed() override;

 private:
  struct Channel {
    std::uint64_t last = 0;
    std::uint64_t epoch = 0;  // added for wraps, in units of the record's own time
    bool seen = false;

    /// `time`, which counts up to `wrap`, on the channel's continuous time line.
    std::uint64_t continued(std::uint64_t time, std::uint64_t wrap);
  };

  std::size_t decode_ps(TimeTag* tags);
  std::size_t decode_coarse_fine(TimeTag* tags);

  std::vector<std::int64_t> fine_table_;  // of the coarse/fine layout; empty in the other
  std::array<Channel, kChannels> channels_;
};

}  // namespace orvo::timing
