// Chunks of a capture on their way from the thread that reads the instrument to the one that
// writes the file. docs/capture-queue.md says who owns a chunk when and how every end is reached.
//
// Threads: exactly one reader and one writer; each operation says whose it is.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <vector>

#include "orvo/timing/error.h"

namespace orvo::timing::detail {

/// A read buffer and how much of it is filled: a short read costs nothing to take back.
struct CaptureChunk {
  std::vector<std::uint8_t> bytes;
  std::size_t used = 0;  ///< bytes that the last read filled

  /// Call when a read has filled `count` bytes. Clears what an earlier, longer read has left after
  /// them: it must not return as data where a later read claims more than it fills.
  void set_used(std::size_t count);
};

class CaptureQueue {
 public:
  /// At most `limit_chunks` filled chunks wait. Chunks have `chunk_bytes`.
  CaptureQueue(std::size_t chunk_bytes, std::size_t limit_chunks)
      : chunk_bytes_(chunk_bytes), limit_chunks_(limit_chunks) {}
  CaptureQueue(const CaptureQueue&) = delete;
  CaptureQueue& operator=(const CaptureQueue&) = delete;

  /// Reader: an empty chunk of full size, a written one where there is one.
  [[nodiscard]] CaptureChunk take_spare();

  /// Reader: hands a filled chunk over; waits while the queue is full. If `interrupted` returns
  /// true meanwhile, the chunk is queued beyond the limit, and Interrupted is thrown. Throws the
  /// writer's failure, or "writer stopped" where the queue was finished without one.
  void push(CaptureChunk&& chunk, const InterruptionCheck& interrupted = {});

  /// Reader: how many filled chunks wait for the writer.
  [[nodiscard]] std::uint64_t waiting();

  /// Reader: nothing more will come.
  void finish();

  /// Reader, after the writer has been joined: its failure, or null.
  [[nodiscard]] std::exception_ptr error();

  /// Writer: the oldest chunk; waits for one. Nothing: the queue is finished and empty.
  [[nodiscard]] std::optional<CaptureChunk> pop();

  /// Writer: a written chunk, for take_spare(). Whether the next one waits already.
  [[nodiscard]] bool recycle(CaptureChunk&& chunk);

  /// Writer: it failed and takes no more chunks.
  void fail(std::exception_ptr error);

 private:
  [[nodiscard]] bool has_room() const noexcept { return chunks_.size() < limit_chunks_; }

  const std::size_t chunk_bytes_;
  const std::size_t limit_chunks_;

  std::mutex mutex_;  // guards everything below
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
  std::deque<CaptureChunk> chunks_;  // oldest first
  std::deque<CaptureChunk> spare_;
  bool done_ = false;
  std::exception_ptr error_;
};

}  // namespace orvo::timing::detail
