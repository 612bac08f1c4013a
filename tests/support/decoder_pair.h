// The packed-delta decoder and the plain one on one stream, compared in all that can be seen.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "orvo/timing/packed/packed_delta.h"
#include "support/decoding.h"
#include "support/plain_decoder.h"

namespace orvo::tests {

class DecoderPair {
 public:
  explicit DecoderPair(const timing::StreamFileHeader& header)
      : header_(header), fast_(header), plain_(header) {}

  /// Names what differs after the feed; empty when nothing does.
  std::string feed(std::span<const std::uint8_t> bytes) {
    fast_input_.append(bytes);
    plain_.input_buffer.insert(plain_.input_buffer.end(), bytes.begin(), bytes.end());
    const std::span<const timing::TimeTag> tags = fast_.feed(fast_input_);
    const Tags plain_tags = plain_.feed_packed_delta();
    for (const timing::LockEvent& event : fast_.lock_events()) {
      lines_.push_back(timing::describe(event, header_));
    }
    tags_ += plain_tags.size();
    const std::span<const std::uint8_t> left = fast_input_.bytes();
    if (lines_ != plain_.log) return "lines";
    if (!std::equal(tags.begin(), tags.end(), plain_tags.begin(), plain_tags.end())) return "tags";
    if (fast_.locked() != plain_.locked || fast_.bit_offset() != plain_.bit_offset) return "lock";
    if (Bytes(left.begin(), left.end()) != plain_.input_buffer) return "remaining bytes";
    return same_state(fast_.state()) ? "" : "state";
  }

  /// The same in chunks of the sizes that `next_bytes` names.
  template <typename NextBytes>
  std::string feed_in_chunks(std::span<const std::uint8_t> bytes, const NextBytes& next_bytes) {
    std::string difference;
    while (!bytes.empty() && difference.empty()) {
      const auto count = static_cast<std::size_t>(next_bytes());
      difference = feed(bytes.first(std::min(count, bytes.size())));
      bytes = bytes.subspan(std::min(count, bytes.size()));
    }
    return difference;
  }

  [[nodiscard]] const PlainDecoder& plain() const { return plain_; }
  [[nodiscard]] std::uint64_t tags() const { return tags_; }

 private:
  [[nodiscard]] bool same_state(const timing::detail::PackedState& fast) const {
    const auto same = [](std::uint64_t a, std::int64_t b) {
      return static_cast<std::int64_t>(a) == b;
    };
    for (std::size_t c = 0; c < 4; ++c) {
      const auto& channel = fast.channels[c];
      const auto last_time_ps =
          plain_.pk_have_time[c] ? std::optional(plain_.pk_last_time[c]) : std::nullopt;
      if (channel.last_time_ps != last_time_ps || channel.overflow != plain_.pk_overflow[c]) {
        return false;
      }
    }
    const bool pending = fast.pending_sync_channel != timing::detail::PackedState::kNoChannel;
    return same(fast.sync_chunks_left, plain_.sync_chunks_left) &&
           (plain_.sync_chunks_left == 0 ||
            (same(fast.sync_channel, plain_.sync_channel) && fast.sync_value == plain_.sync_value &&
             fast.sync_bits == plain_.sync_bits)) &&
           pending == (plain_.pending_sync_channel >= 0) &&
           (!pending || (same(fast.pending_sync_channel, plain_.pending_sync_channel) &&
                         fast.pending_sync_time_ps == plain_.pending_sync_time));
  }

  timing::StreamFileHeader header_;
  timing::InputBuffer fast_input_;
  timing::PackedDeltaDecoder fast_;
  PlainDecoder plain_;
  std::vector<std::string> lines_;
  std::uint64_t tags_ = 0;
};

}  // namespace orvo::tests
