// Payload bytes in, timestamps out: raw64, delta32 and packed-delta records.
//
// Threads: a decoder belongs to the one thread that feeds it.
// Ownership: owns its input and its output; what feed() returns is valid until the next feed.
// Errors: none. Damaged data is skipped or dropped by the rules of its format; only memory
// exhaustion throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::timing {

class InputBuffer;
class RecordDecoder;

class StreamDecoder {
 public:
  explicit StreamDecoder(const StreamFileHeader& header);
  ~StreamDecoder();
  StreamDecoder(StreamDecoder&&) noexcept;
  StreamDecoder& operator=(StreamDecoder&&) noexcept;

  /// Whether the header describes records that can be decoded at all. Where it does not, feeding
  /// consumes nothing and yields nothing.
  [[nodiscard]] static bool decodes(const StreamFileHeader& header);
  [[nodiscard]] bool decodes() const noexcept { return records_ != nullptr; }

  /// Adds payload bytes to what waits to be decoded.
  void append(std::span<const std::uint8_t> bytes);

  /// The same without a copy: room for `count` bytes, of which commit() adds the first ones.
  [[nodiscard]] std::span<std::uint8_t> prepare(std::size_t count);
  void commit(std::size_t count) noexcept;

  /// Decodes what waits; an incomplete record stays. A packed-delta batch ends where the lock is
  /// lost: what follows waits for the next feed.
  std::span<const TimeTag> feed();

  /// What happened to a packed-delta lock in the last feed, in order; valid until the next feed.
  [[nodiscard]] std::span<const LockEvent> lock_events() const noexcept;

  /// Bytes that wait to be decoded.
  [[nodiscard]] std::uint64_t buffered_bytes() const noexcept;

 private:
  std::unique_ptr<InputBuffer> input_;
  std::unique_ptr<RecordDecoder> records_;  // of the header's format; null where there is none
};

}  // namespace orvo::timing
