// Payload bytes in, timestamps out: raw64, delta32 and packed-delta records.
//
// Threads: each object belongs to one thread at a time.
// Ownership: a decoder owns its input and its output, whose storage is reused from chunk to chunk
// and never shrinks. Nothing here can be copied or moved.
// Errors: none. Damaged data is skipped or dropped by the rules of its format; only memory
// exhaustion throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
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
  struct Free {
    void operator()(std::uint8_t* bytes) const noexcept { std::free(bytes); }
  };

  void grow(std::size_t capacity);

  std::unique_ptr<std::uint8_t[], Free> storage_;
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

/// A decoder of one stream. Each record format has its class, which make() chooses.
class StreamDecoder {
 public:
  /// Null where the header describes records that cannot be decoded.
  [[nodiscard]] static std::unique_ptr<StreamDecoder> make(const StreamFileHeader& header);
  [[nodiscard]] static bool decodes(const StreamFileHeader& header) {
    return make(header) != nullptr;
  }

  virtual ~StreamDecoder() = default;
  StreamDecoder(const StreamDecoder&) = delete;
  StreamDecoder& operator=(const StreamDecoder&) = delete;

  /// Adds payload bytes to what waits to be decoded.
  void append(std::span<const std::uint8_t> bytes) { input_.append(bytes); }

  /// The same without a copy: room for `count` bytes, of which commit() adds the first ones.
  [[nodiscard]] std::span<std::uint8_t> prepare(std::size_t count) { return input_.prepare(count); }
  void commit(std::size_t count) noexcept { input_.commit(count); }

  /// Decodes what waits and returns the tags, valid until the next feed; an incomplete record
  /// stays. A packed-delta batch ends where the lock is lost: what follows waits for the next feed.
  virtual std::span<const TimeTag> feed() = 0;

  /// What happened to a packed-delta lock in the last feed, in order; valid until the next feed.
  [[nodiscard]] virtual std::span<const LockEvent> lock_events() const noexcept { return {}; }

  /// Bytes that wait to be decoded.
  [[nodiscard]] std::uint64_t buffered_bytes() const noexcept { return input_.size(); }

 protected:
  StreamDecoder() = default;

  InputBuffer input_;
  TagBuffer tags_;
};

}  // namespace orvo::timing
