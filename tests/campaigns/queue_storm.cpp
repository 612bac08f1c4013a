// The capture queue between two threads that come and go as they like: chunks and pauses of random
// sizes, ends and failures on either side in every state of the queue. No chunk is lost, their
// order is kept, the writer's failure reaches the reader, and both always come to their end.
//
//     campaign_queue_storm [CHUNKS [SCENE]]     at least CHUNKS chunks; or one scene alone
//
// Worth most under the thread sanitiser: the counters are relaxed and order nothing.
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>
#include <string>
#include <thread>
#include <utility>

#include "orvo/simulator/instrument.h"
#include "orvo/timing/device/capture_queue.h"
#include "support/error_of.h"

namespace {

using namespace std::chrono_literals;
using orvo::simulator::random_at;
using orvo::tests::error_of;
using orvo::timing::Error;
using namespace orvo::timing::detail;

constexpr const char* kFailure = "disk on fire [9]";

/// What the thread that ends the matter waits for.
enum Meeting : unsigned {
  kAnyhow,          // both sides end when they end, early or not
  kFinishOnEmpty,   // the reader finishes while the writer waits for a chunk
  kFinishOnFull,    // the reader finishes while the queue is full
  kFailOnEmpty,     // the writer fails with nothing queued; the reader comes later
  kFailOnFull,      // the writer fails while the reader waits for room
  kFailOnFinished,  // the writer fails after the reader has finished
  kFailAtClose      // the writer fails after it has written everything
};

using Counter = std::atomic<std::uint64_t>;

void set(Counter& counter, std::uint64_t value) { counter.store(value, std::memory_order_relaxed); }
void wait_for(const Counter& counter, std::uint64_t value) {
  while (counter.load(std::memory_order_relaxed) < value) std::this_thread::yield();
}

Counter scene_now{0}, seconds_in_scene{0};  // for the watchdog

struct Scene {
  explicit Scene(std::uint64_t number) : seed(number) {
    const std::uint64_t some = below(3, 300);
    if (meeting == kFinishOnFull) pushes += limit;
    const bool may_fail = meeting == kAnyhow && some % 2 == 0;
    if (may_fail || (meeting >= kFailOnEmpty && meeting <= kFailOnFinished)) fails_at = some;
    if (meeting == kFailOnFinished) pushes = some + 1 + some % (limit + 1);
    if (meeting == kFailOnEmpty || meeting == kFailOnFull) pushes = some + limit + 2;
  }

  /// Empty, or what went wrong.
  std::string play() {
    std::thread writer([this] { write(); });
    const std::string push_error = error_of([this] { read(); });
    if (meeting == kFinishOnEmpty) meet(pops_begun, pushes + 1);
    queue.finish();
    set(finished, 1);
    writer.join();
    queue.finish();
    return verdict(push_error);
  }

  [[nodiscard]] std::uint64_t below(std::uint64_t what, std::uint64_t end) const {
    return random_at(seed, what << 40) % end;
  }

  /// Mostly none; how many depends on the side and the scene, so that either may be the slower.
  void pause(std::uint64_t side, std::uint64_t at) const {
    const std::uint64_t random = random_at(seed + side, at << 8 | 1) >> 16;
    const std::uint64_t busy = below(4 + side, 4);
    if (random % 64 < busy) std::this_thread::yield();
    if (random % 256 < busy) std::this_thread::sleep_for(random % 64 * 1us);
  }

  /// The other side is about to wait, and mostly does.
  void meet(const Counter& counter, std::uint64_t value) const {
    wait_for(counter, value);
    std::this_thread::sleep_for(below(6, 4) * 50us);
  }

  [[nodiscard]] std::size_t used(std::uint64_t number) const {
    const std::uint64_t random = random_at(seed, number << 8 | 2);
    if (random % 100 == 0) return chunk_bytes + 7;  // more than was asked for
    return 1 + (random >> 8) % chunk_bytes;
  }

  [[nodiscard]] std::uint8_t byte_of(std::uint64_t number) const {
    return static_cast<std::uint8_t>(random_at(seed, number << 8 | 3) | 1);  // 0 in new chunks
  }

  void read() {
    for (; pushed < pushes; ++pushed) {
      CaptureChunk chunk = queue.take_spare();
      spares_fit = spares_fit && chunk.bytes.size() == chunk_bytes;
      if (chunk.bytes[0] == 0) ++new_chunks;
      pause(1, pushed);
      chunk.used = used(pushed);
      if (chunk.used > chunk.bytes.size()) chunk.bytes.resize(chunk.used);
      std::fill_n(chunk.bytes.begin(), chunk.used, byte_of(pushed));
      if (meeting == kFailOnEmpty && pushed == fails_at + 1) wait_for(failed, 1);
      set(pushes_begun, pushed + 1);
      queue.push(std::move(chunk));
    }
  }

  void write() {
    try {
      while (true) {
        if (meeting == kFinishOnFull && written == pushes - limit) wait_for(finished, 1);
        set(pops_begun, written + 1);
        auto chunk = queue.pop();
        if (!chunk) break;
        pause(2, written);
        if (written == fails_at) {
          if (meeting == kFailOnFull) meet(pushes_begun, pushes);
          if (meeting == kFailOnFinished) wait_for(finished, 1);
          throw Error(9, "disk on fire");
        }
        const auto bytes = std::span(chunk->bytes).first(chunk->used);
        const auto right = std::count(bytes.begin(), bytes.end(), byte_of(written));
        in_order = in_order && bytes.size() == used(written) && std::size_t(right) == bytes.size();
        ++written;
        queue.recycle(std::move(*chunk));
      }
      if (meeting == kFailAtClose) throw Error(9, "disk on fire");
    } catch (...) {
      queue.fail(std::current_exception());
      set(failed, 1);
    }
  }

  std::string verdict(const std::string& push_error) {
    const std::string error = error_of([this] {
      if (const std::exception_ptr thrown = queue.error()) std::rethrow_exception(thrown);
    });
    const bool in_mid_run = fails_at < pushes;
    const bool fails = in_mid_run || meeting == kFailAtClose;
    const std::uint64_t at_least = fails_at + 1 + (meeting == kFailOnFull ? limit : 0);
    const std::uint64_t at_most = fails_at + 1 + (meeting == kFailOnEmpty ? 0 : limit);
    if (!spares_fit || !in_order) return "chunks of a wrong size or content";
    if (new_chunks > limit + (fails ? 3 : 2)) return "more chunks than can be under way";
    if (written != (in_mid_run ? fails_at : pushes)) return "chunks are missing";
    if (error != (fails ? kFailure : "no error")) return "the writer's failure: '" + error + "'";
    if (push_error != (pushed < pushes ? kFailure : "no error")) return "the push: " + push_error;
    if (!in_mid_run) return pushed == pushes ? "" : "the reader was stopped";
    return at_least <= pushed && pushed <= at_most ? "" : "stopped too early or too late";
  }

  const std::uint64_t seed;
  const Meeting meeting = static_cast<Meeting>(seed % (kFailAtClose + 1));
  const std::uint64_t limit = 1 + below(0, 5);
  const std::uint64_t chunk_bytes = 1 + below(1, 200);
  std::uint64_t pushes = below(2, 300);
  std::uint64_t fails_at = ~std::uint64_t{0};  // the chunk that the writer fails on
  CaptureQueue queue{chunk_bytes, limit};
  Counter pushes_begun{0}, pops_begun{0}, finished{0}, failed{0};
  std::uint64_t pushed = 0, new_chunks = 0;  // the reader's
  std::uint64_t written = 0;                 // the writer's, up to the join
  bool spares_fit = true, in_order = true;   // the reader's, the writer's
};

/// Once a second, unless nothing runs at all.
void watch(int /*signal*/) {
  if (++seconds_in_scene < 60) return;  // no scene takes one
  dprintf(STDERR_FILENO, "dead end in scene %ju\n", scene_now.load());
  _exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t chunks = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100'000;
  if (argc > 2) scene_now = std::strtoull(argv[2], nullptr, 10);
  std::signal(SIGALRM, watch);
  const itimerval every_second = {{1, 0}, {1, 0}};
  setitimer(ITIMER_REAL, &every_second, nullptr);
  for (std::uint64_t pushed = 0; pushed < chunks; ++scene_now) {
    set(seconds_in_scene, 0);
    Scene scene(scene_now);
    if (const std::string fault = scene.play(); !fault.empty()) {
      std::fprintf(stderr, "scene %ju: %s\n", scene_now.load(), fault.c_str());
      return 1;
    }
    pushed = argc > 2 ? chunks : pushed + scene.pushed;
  }
  std::printf("%ju scenes\n", scene_now.load());
}
