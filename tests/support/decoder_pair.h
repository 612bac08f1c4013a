// The packed-delta decoder and the plain one on one stream, compared in all that can be seen.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "orvo/timing/packed/packed_delta.h"
#include "support/decoding.h"
#include "support/plain_decoder.h"

namespace orvo::tests {

/// All that an event says, for the line of a table.
inline std::string text_of(const timing::LockEvent& event, const timing::StreamFileHeader& header) {
  return timing::describe(event, header) + " at " + std::to_string(event.payload_offset_bytes) +
         " after " + std::to_string(event.tags_before) + " skips " +
         std::to_string(event.drop_bytes);
}

class DecoderPair {
 public:
  explicit DecoderPair(const timing::StreamFileHeader& header)
      : header_(header), fast_(header), plain_(header) {}

  /// Names what differs after the feed; empty when nothing does.
  std::string feed(std::span<const std::uint8_t> bytes) {
    input_.append(bytes);
    plain_.input_buffer.insert(plain_.input_buffer.end(), bytes.begin(), bytes.end());
    const std::size_t events = plain_.log.size();
    const std::span<const timing::TimeTag> tags = fast_.feed(input_);
    last_tags = plain_.feed_packed_delta();
    const auto same_event = [this](const timing::LockEvent& a, const timing::LockEvent& b) {
      return text_of(a, header_) == text_of(b, header_);
    };
    const std::span<const timing::LockEvent> log = std::span(plain_.log).subspan(events);
    const std::span<const timing::LockEvent> fast_log = fast_.lock_events();
    if (!std::equal(fast_log.begin(), fast_log.end(), log.begin(), log.end(), same_event)) {
      return "events";
    }
    if (!std::equal(tags.begin(), tags.end(), last_tags.begin(), last_tags.end())) return "tags";
    if (fast_.locked() != plain_.locked || fast_.bit_offset() != plain_.bit_offset) return "lock";
    const std::span<const std::uint8_t> left = input_.bytes();
    if (Bytes(left.begin(), left.end()) != plain_.input_buffer) return "remaining bytes";
    return same_state(fast_.state()) ? "" : "state";
  }

  /// The same in chunks of the sizes that `next_bytes` names.
  template <typename NextBytes>
  std::string feed_in_chunks(std::span<const std::uint8_t> bytes, const NextBytes& next_bytes) {
    std::string difference;
    while (!bytes.empty() && difference.empty()) {
      const std::size_t count = std::min<std::size_t>(next_bytes(), bytes.size());
      difference = feed(bytes.first(count));
      bytes = bytes.subspan(count);
    }
    return difference;
  }

  [[nodiscard]] const PlainDecoder& plain() const { return plain_; }
  Tags last_tags;  ///< of the last feed

 private:
  [[nodiscard]] bool same_state(const timing::detail::PackedState& fast) const {
    for (std::size_t c = 0; c < 4; ++c) {
      const auto last = plain_.pk_have_time[c] ? std::optional(plain_.last_time[c]) : std::nullopt;
      const auto& channel = fast.channels[c];
      if (channel.last_time_ps != last || channel.overflow != plain_.overflow[c]) return false;
    }
    const unsigned pending = plain_.pending_sync_channel < 0
                                 ? timing::detail::PackedState::kNoChannel
                                 : static_cast<unsigned>(plain_.pending_sync_channel);
    return fast.sync_chunks_left == plain_.sync_chunks_left &&
           (plain_.sync_chunks_left == 0 ||
            (fast.sync_channel == plain_.sync_channel && fast.sync_value == plain_.sync_value &&
             fast.sync_bits == plain_.sync_bits)) &&
           fast.pending_sync_channel == pending &&
           fast.pending_sync_time_ps == plain_.pending_sync_time;
  }

  timing::StreamFileHeader header_;
  timing::InputBuffer input_;
  timing::PackedDeltaDecoder fast_;
  PlainDecoder plain_;
};

}  // namespace orvo::tests
