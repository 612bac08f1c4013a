// The packed-delta decoder and the plain one on one stream, compared in all that can be seen.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <sstream>
#include <string>

#include "orvo/timing/stream_decoder.h"
#include "support/decoding.h"
#include "support/plain_decoder.h"

namespace orvo::tests {

class DecoderPair {
 public:
  /// `header` must describe packed-delta records that can be decoded.
  explicit DecoderPair(const timing::StreamFileHeader& header)
      : header_(header), fast_(timing::StreamDecoder::make(header)), plain_(header) {}

  /// Names what differs after the feed; empty when nothing does.
  std::string feed(std::span<const std::uint8_t> bytes) {
    fast_->append(bytes);
    plain_.input_buffer.insert(plain_.input_buffer.end(), bytes.begin(), bytes.end());
    const std::size_t events = plain_.log.size();
    const std::span<const timing::TimeTag> tags = fast_->feed();
    last_tags = plain_.feed_packed_delta();
    const std::string lines = lines_of(fast_->lock_events());
    const std::string plain_lines = lines_of(std::span(plain_.log).subspan(events));
    if (lines != plain_lines) return lines + "instead of " + plain_lines;
    if (!std::equal(tags.begin(), tags.end(), last_tags.begin(), last_tags.end())) return "tags";
    return fast_->buffered_bytes() == plain_.input_buffer.size() ? "" : "remaining bytes";
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
  /// All that the events say.
  [[nodiscard]] std::string lines_of(std::span<const timing::LockEvent> events) const {
    std::ostringstream lines;
    for (const timing::LockEvent& event : events) {
      lines << describe(event, header_) << " at " << event.payload_offset_bytes << " after "
            << event.tags_before << " skips " << event.drop_bytes << " misses "
            << event.sync_chunks_left << '\n';
    }
    return lines.str();
  }

  timing::StreamFileHeader header_;
  std::unique_ptr<timing::StreamDecoder> fast_;
  PlainDecoder plain_;
};

}  // namespace orvo::tests
