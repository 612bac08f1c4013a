#include "regrowing_capture.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "orvo/timing/device/ot_api.h"
#include "orvo/timing/stream_files.h"

namespace orvo::benchmarks {
namespace {

using Chunk = std::vector<std::uint8_t>;

constexpr int kReadTimeoutMs = 1;  // nothing comes after the first one

class RegrowingQueue {
 public:
  RegrowingQueue(std::size_t chunk_bytes, std::size_t limit)
      : chunk_bytes_(chunk_bytes), limit_(limit) {}

  Chunk take_spare() {
    Chunk chunk;
    {
      const std::lock_guard lock(mutex_);
      if (!spare_.empty()) {
        chunk = std::move(spare_.front());
        spare_.pop_front();
      }
    }
    chunk.resize(chunk_bytes_);
    return chunk;
  }

  void push(Chunk&& chunk) {
    std::unique_lock lock(mutex_);
    not_full_.wait(lock, [&] { return chunks_.size() < limit_; });
    chunks_.push_back(std::move(chunk));
    lock.unlock();
    not_empty_.notify_one();
  }

  /// Empty when nothing more will come.
  Chunk pop() {
    std::unique_lock lock(mutex_);
    not_empty_.wait(lock, [&] { return done_ || !chunks_.empty(); });
    if (chunks_.empty()) {
      return {};
    }
    Chunk chunk = std::move(chunks_.front());
    chunks_.pop_front();
    lock.unlock();
    not_full_.notify_one();
    return chunk;
  }

  void recycle(Chunk&& chunk) {
    chunk.resize(chunk_bytes_);
    const std::lock_guard lock(mutex_);
    spare_.push_back(std::move(chunk));
  }

  void finish() {
    const std::lock_guard lock(mutex_);
    done_ = true;
    not_empty_.notify_all();
  }

 private:
  const std::size_t chunk_bytes_;
  const std::size_t limit_;
  std::mutex mutex_;
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
  std::deque<Chunk> chunks_;
  std::deque<Chunk> spare_;
  bool done_ = false;
};

}  // namespace

std::uint64_t regrowing_capture(const std::string& path, std::size_t chunk_bytes,
                                std::size_t queue_chunks) {
  timing::StreamFileWriter file;
  file.open(path, {});
  RegrowingQueue queue(chunk_bytes, queue_chunks);
  std::thread writer([&] {
    for (Chunk chunk = queue.pop(); !chunk.empty(); chunk = queue.pop()) {
      file.write(chunk.data(), chunk.size());
      queue.recycle(std::move(chunk));
    }
  });
  std::uint64_t total = 0;
  std::uint64_t got = 0;
  for (Chunk chunk = queue.take_spare();
       ot_read_stream_bytes(nullptr, chunk.data(), chunk.size(), &got, kReadTimeoutMs) == OT_OK;
       chunk = queue.take_spare()) {
    chunk.resize(got);
    total += got;
    queue.push(std::move(chunk));
  }
  queue.finish();
  writer.join();
  return total;
}

}  // namespace orvo::benchmarks
