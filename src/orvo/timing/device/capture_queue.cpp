#include "orvo/timing/device/capture_queue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace orvo::timing::detail {
namespace {

/// How often a wait for room checks whether it is interrupted.
constexpr std::chrono::milliseconds kLookAgain(10);

}  // namespace

void CaptureChunk::set_used(std::size_t count) {
  if (count > bytes.size()) {
    bytes.resize(count);  // bytes that the library claims beyond the buffer count as zero
  } else if (count < used) {
    std::memset(bytes.data() + count, 0, used - count);
  }
  used = count;
}

CaptureChunk CaptureQueue::take_spare() {
  {
    const std::lock_guard lock(mutex_);
    if (!spare_.empty()) {
      CaptureChunk chunk = std::move(spare_.front());
      spare_.pop_front();
      return chunk;
    }
  }
  return {std::vector<std::uint8_t>(chunk_bytes_), 0};
}

void CaptureQueue::push(CaptureChunk&& chunk, const InterruptionCheck& interrupted) {
  bool stopped = false;
  {
    std::unique_lock lock(mutex_);
    while (!stopped && !not_full_.wait_for(lock, kLookAgain, [&] { return done_ || has_room(); })) {
      lock.unlock();
      stopped = interrupted && interrupted();
      lock.lock();
    }
    if (error_ != nullptr) {
      std::rethrow_exception(error_);
    }
    if (done_) {
      throw Error(OT_ERR_IO, "stream_to_file_for: writer stopped");
    }
    chunks_.push_back(std::move(chunk));
  }
  not_empty_.notify_one();
  if (stopped) {
    throw Interrupted();
  }
}

std::uint64_t CaptureQueue::waiting() {
  const std::lock_guard lock(mutex_);
  return chunks_.size();
}

void CaptureQueue::finish() {
  {
    const std::lock_guard lock(mutex_);
    done_ = true;
  }
  not_empty_.notify_all();
  not_full_.notify_all();
}

std::exception_ptr CaptureQueue::error() {
  const std::lock_guard lock(mutex_);
  return error_;
}

std::optional<CaptureChunk> CaptureQueue::pop() {
  std::optional<CaptureChunk> chunk;
  {
    std::unique_lock lock(mutex_);
    not_empty_.wait(lock, [&] { return done_ || !chunks_.empty(); });
    if (chunks_.empty()) {
      return std::nullopt;
    }
    chunk = std::move(chunks_.front());
    chunks_.pop_front();
  }
  not_full_.notify_one();
  return chunk;
}

bool CaptureQueue::recycle(CaptureChunk&& chunk) {
  chunk.bytes.resize(chunk_bytes_);
  chunk.used = std::min(chunk.used, chunk_bytes_);
  const std::lock_guard lock(mutex_);
  if (!done_) {
    spare_.push_back(std::move(chunk));
  }
  return !chunks_.empty();
}

void CaptureQueue::fail(std::exception_ptr error) {
  {
    const std::lock_guard lock(mutex_);
    error_ = std::move(error);
    done_ = true;
  }
  not_full_.notify_all();
  not_empty_.notify_all();
}

}  // namespace orvo::timing::detail
