// What a record decoder is: bytes from one buffer, tags into another, one class per record format.
// make_record_decoder() knows them all.
//
// Threads: each object belongs to one thread. Ownership: each buffer owns its storage, which is
// reused from chunk to chunk and never shrinks. None can be copied or moved.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

namespace orvo::timing {

/// Bytes received and not yet decoded: filled at the tail, consumed at the head.
class InputBuffer {
 public:
  /// Bytes after the last one that may be read, with any value: a decoder may load whole words.
  static constexpr std::size_t kSlackBytes = 64;

  InputBuffer() = default;
  InputBuffer(const InputBuffer&) = delete;
  InputBuffer& operator=(const InputBuffer&) = delete;

  [[nodiscard]] std::size_t size() const noexcept { return tail_ - head_; }
  [[nodiscard]] const std::uint8_t* data() const noexcept { return storage_.get() + head_; }
  [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept { return {data(), size()}; }

  /// Room for `count` bytes after the last one, valid until the next call; commit() keeps them.
  [[nodiscard]] std::span<std::uint8_t> prepare(std::size_t count);
  void commit(std::size_t count) noexcept { tail_ += count; }

  void append(std::span<const std::uint8_t> bytes);

  void remove_front(std::size_t count) noexcept {
    head_ += count;
    removed_ += count;
  }
  void keep_back(std::size_t count) noexcept { remove_front(size() - count); }
  /// All bytes ever removed: the place of the first byte in the stream.
  [[nodiscard]] std::uint64_t removed() const noexcept { return removed_; }

 private:
  std::unique_ptr<std::uint8_t[]> storage_;
  std::size_t capacity_ = 0;
  std::size_t head_ = 0;
  std::size_t tail_ = 0;
  std::uint64_t removed_ = 0;
};

/// The tags of one batch, never zeroed first.
class TagBuffer {
 public:
  TagBuffer() = default;
  TagBuffer(const TagBuffer&) = delete;
  TagBuffer& operator=(const TagBuffer&) = delete;

  /// Room for `count` tags; what was there before is lost.
  [[nodiscard]] TimeTag* room_for(std::size_t count);

  /// The first `count` tags, valid until the next room_for().
  [[nodiscard]] std::span<const TimeTag> first(std::size_t count) const noexcept {
    return {tags_.get(), count};
  }

 private:
  std::unique_ptr<TimeTag[]> tags_;
  std::size_t capacity_ = 0;
};

class RecordDecoder {
 public:
  RecordDecoder() = default;
  virtual ~RecordDecoder() = default;
  RecordDecoder(const RecordDecoder&) = delete;
  RecordDecoder& operator=(const RecordDecoder&) = delete;

  /// Removes the whole records from the front of `input` and returns their tags, valid until the
  /// next feed. Every call must pass the same input buffer.
  virtual std::span<const TimeTag> feed(InputBuffer& input) = 0;

  /// Of the last feed; formats without a lock have none.
  [[nodiscard]] virtual std::span<const LockEvent> lock_events() const noexcept { return {}; }
};

/// Null where the header describes records that cannot be decoded.
[[nodiscard]] std::unique_ptr<RecordDecoder> make_record_decoder(const StreamFileHeader& header);

}  // namespace orvo::timing
