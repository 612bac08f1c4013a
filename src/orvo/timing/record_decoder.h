// What StreamDecoder asks of the decoder of one record format. A new format is a class of this
// kind and one line in make_record_decoder().
#pragma once

#include <memory>
#include <span>

#include "orvo/timing/buffers.h"
#include "orvo/timing/lock_event.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::timing {

class RecordDecoder {
 public:
  RecordDecoder() = default;
  virtual ~RecordDecoder() = default;
  RecordDecoder(const RecordDecoder&) = delete;
  RecordDecoder& operator=(const RecordDecoder&) = delete;

  /// Removes the whole records from the front of `input` and returns their tags, valid until the
  /// next feed. The same input buffer comes with every call.
  virtual std::span<const TimeTag> feed(InputBuffer& input) = 0;

  /// Of the last feed; formats without a lock have none.
  [[nodiscard]] virtual std::span<const LockEvent> lock_events() const noexcept { return {}; }
};

/// Null where the header describes records that cannot be decoded.
[[nodiscard]] std::unique_ptr<RecordDecoder> make_record_decoder(const StreamFileHeader& header);

}  // namespace orvo::timing
