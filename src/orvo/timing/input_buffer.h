// Bytes received and not yet decoded: filled at the tail, consumed at the head.
//
// Threads: none of its own. Ownership: owns its storage, which is reused and never shrinks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace orvo::timing::detail {

class InputBuffer {
 public:
  InputBuffer() = default;
  InputBuffer(const InputBuffer&) = delete;  // nor moved: the sizes would stay with the old one
  InputBuffer& operator=(const InputBuffer&) = delete;

  /// Bytes behind the last one that may be read, with any value: a decoder may load whole words.
  static constexpr std::size_t kSlackBytes = 64;

  [[nodiscard]] std::size_t size() const noexcept { return tail_ - head_; }
  [[nodiscard]] const std::uint8_t* data() const noexcept { return storage_.get() + head_; }
  [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept { return {data(), size()}; }

  /// Room for `count` bytes behind the last one, valid until the next call; commit() keeps them.
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

}  // namespace orvo::timing::detail
