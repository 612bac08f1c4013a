// Timed capture: the calling thread reads the instrument, a writer thread fills the file.

#include <algorithm>
#include <exception>
#include <thread>
#include <utility>

#include "orvo/timing/device/capture_queue.h"
#include "orvo/timing/device/device.h"
#include "orvo/timing/device/library_status.h"
#include "orvo/timing/error.h"
#include "orvo/timing/stream_files.h"

namespace orvo::timing {
namespace {

constexpr std::uint64_t kMinChunkBytes = 4096;
constexpr std::uint64_t kMinQueueChunks = 2;
constexpr int kReadTimeoutMs = 20;
constexpr std::chrono::milliseconds kProgressPause(250);  // as often as a person can read it
// Arguments of ot_stop_stream_mode.
constexpr int kStopCompleted = 1;
constexpr int kStopAbandoned = 0;

/// Stops a stream after a failure. The stop's own failure is discarded: the first one is reported.
void abandon_stream(ot_device* handle) noexcept {
  try {
    detail::check(ot_stop_stream_mode(handle, kStopAbandoned), "stop_stream_any", handle);
  } catch (...) {
  }
}

/// The thread that writes a queue's chunks to a file. Always joined before it is destroyed.
class WriterThread {
 public:
  WriterThread(StreamFileWriter& file, detail::CaptureQueue& queue)
      : file_(file), queue_(queue), thread_([this] { run(); }) {}
  ~WriterThread() { finish(); }
  WriterThread(const WriterThread&) = delete;
  WriterThread& operator=(const WriterThread&) = delete;

  /// Returns when all that was queued is written and the file closed, or the writer has failed.
  void finish() {
    queue_.finish();
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  /// After finish(): what was appended to the file.
  [[nodiscard]] std::uint64_t written_bytes() const noexcept { return written_bytes_; }

 private:
  void run() noexcept {
    try {
      while (auto chunk = queue_.pop()) {
        file_.write(chunk->bytes.data(), chunk->used);
        written_bytes_ += chunk->used;
        if (!queue_.recycle(std::move(*chunk))) {
          file_.flush();
        }
      }
      file_.close();
    } catch (...) {
      queue_.fail(std::current_exception());
    }
  }

  StreamFileWriter& file_;
  detail::CaptureQueue& queue_;
  std::uint64_t written_bytes_ = 0;
  std::thread thread_;  // last: it uses the others
};

/// Reads into `chunk` and its successors and queues them, until the time is up.
void read_stream(Device& device, const CaptureRequest& request, detail::CaptureQueue& queue,
                 detail::CaptureChunk chunk) {
  using SteadyClock = std::chrono::steady_clock;
  const SteadyClock::time_point start = SteadyClock::now();
  const auto deadline = start + request.duration;  // in floating point
  SteadyClock::time_point next_progress = start + kProgressPause;
  // False for a duration that is not a number.
  for (auto now = start; deadline > now; now = SteadyClock::now()) {
    throw_if(request.interrupted);
    if (request.progress && now >= next_progress) {
      next_progress = now + kProgressPause;
      request.progress({.elapsed_s = std::chrono::duration<double>(now - start).count(),
                        .payload_bytes = device.stream_state.payload_bytes,
                        .waiting_chunks = queue.waiting()});
    }
    std::uint64_t got = 0;
    const ot_status status = ot_read_stream_bytes(device.handle, chunk.bytes.data(),
                                                  chunk.bytes.size(), &got, kReadTimeoutMs);
    if (status == OT_ERR_TIMEOUT || (status == OT_OK && got == 0)) {
      continue;
    }
    if (status != OT_OK) {
      detail::throw_status(status, "read_stream_bytes", ot_last_error(device.handle));
    }
    ++device.stream_state.reads;
    device.stream_state.payload_bytes += got;
    chunk.set_used(got);
    queue.push(std::move(chunk), request.interrupted);
    chunk = queue.take_spare();
  }
}

}  // namespace

std::uint64_t Device::capture(const CaptureRequest& request) {
  const StreamFileHeader header = configure_stream(request);
  StreamFileWriter file;
  file.open(request.path, header);
  detail::CaptureQueue queue(std::max(request.chunk_bytes, kMinChunkBytes),
                             std::max(request.queue_chunks, kMinQueueChunks));
  WriterThread writer(file, queue);
  std::exception_ptr failure;
  bool stream_running = false;
  try {
    detail::CaptureChunk first = queue.take_spare();
    start_stream(request);
    stream_running = true;
    read_stream(*this, request, queue, std::move(first));
    detail::check(ot_stop_stream_mode(handle, kStopCompleted), "stop_stream_any", handle);
  } catch (...) {
    failure = std::current_exception();
    if (stream_running) {
      abandon_stream(handle);
    }
  }
  writer.finish();
  if (std::exception_ptr error = queue.error()) {
    failure = std::move(error);  // takes precedence over what the calling thread met
  }
  if (failure != nullptr) {
    std::rethrow_exception(failure);
  }
  return writer.written_bytes();
}

/// Everything before the stream starts; returns what the file's header has to say.
StreamFileHeader Device::configure_stream(const CaptureRequest& request) {
  StreamFileHeader header;
  header.stream_format = request.format;
  header.mode = request.mode;
  header.stream_transport = request.transport;
  header.channel_mask = request.channel_mask & kAllChannels;
  header.tdl_index = request.tdl_index;
  header.delta_bits = request.packed_bits;
  header.quantum_ps = request.packed_quantum_ps;
  header.raw64_tag_format =
      request.mode == Mode::internal && request.format == Format::raw64 ? "raw_cf" : "ps";

  detail::check(ot_set_stream_channel_mask(handle, request.channel_mask), "set_stream_channels",
                handle);
  if (request.format == Format::packed_delta) {
    header.delta_bits = kDefaultDeltaBits;  // assumed if the library reports nothing
    header.quantum_ps = kDefaultQuantumPs;
    detail::check(ot_set_packed_delta_config(handle, request.packed_bits, request.packed_quantum_ps,
                                             &header.delta_bits, &header.quantum_ps),
                  "set_packed_delta_config", handle);
  }
  detail::check(ot_set_stream_interface(handle, static_cast<ot_transport>(request.transport),
                                        static_cast<ot_format>(request.format)),
                "set_stream_interface", handle);
  if (request.mode == Mode::internal) {
    set_calibration_freq(request.cal_freq_hz);
  }
  return header;
}

void Device::start_stream(const CaptureRequest& request) {
  detail::check(ot_start_stream_mode(handle, static_cast<ot_mode>(request.mode), request.tdl_index),
                "start_stream(mode)", handle);
  stream_mode = request.mode;
  stream_state = {};
}

}  // namespace orvo::timing
