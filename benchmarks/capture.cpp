// Processor time of a capture, both threads together, with all bytes ready at once.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "orvo/timing/device/device.h"
#include "prepared_driver.h"
#include "regrowing_capture.h"
#include "support/scratch.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

constexpr std::uint64_t kChunkBytes = 1 << 20;
constexpr double kGiB = 1 << 30;

/// Seconds a GiB.
double write_loop_seconds(const std::string& path, std::uint64_t total_bytes) {
  const std::vector<char> chunk(kChunkBytes, 0x5A);
  const double seconds = processor_seconds_of(RUSAGE_SELF, [&] {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    bool good = file >= 0;
    for (std::uint64_t written = 0; good && written < total_bytes; written += kChunkBytes) {
      good = write(file, chunk.data(), chunk.size()) == static_cast<ssize_t>(chunk.size());
    }
    if (file >= 0) {
      close(file);
    }
    if (!good) {
      throw std::runtime_error("cannot write " + path);
    }
  });
  return seconds * kGiB / static_cast<double>(total_bytes);
}

/// The same for a real capture. What does not fit into its duration is not captured.
double capture_seconds(const std::string& path, std::uint64_t total_bytes, std::uint64_t read_bytes,
                       std::uint64_t queue_chunks) {
  constexpr std::chrono::milliseconds kDuration(500);
  timing::Device device = timing::Device::open("prepared", 0);
  prepare_driver(total_bytes, read_bytes);
  std::uint64_t captured = 0;
  const double seconds = processor_seconds_of(RUSAGE_SELF, [&] {
    captured = device.capture({.path = path,
                               .duration = kDuration,
                               .cal_freq_hz = 1e6,
                               .chunk_bytes = kChunkBytes,
                               .queue_chunks = queue_chunks});
  });
  return seconds * kGiB / static_cast<double>(captured);
}

double regrowing_seconds(const std::string& path, std::uint64_t total_bytes,
                         std::uint64_t read_bytes, std::uint64_t queue_chunks) {
  prepare_driver(total_bytes, read_bytes);
  const double seconds = processor_seconds_of(
      RUSAGE_SELF, [&] { regrowing_capture(path, kChunkBytes, queue_chunks); });
  return seconds * kGiB / static_cast<double>(total_bytes);
}

Figures measure_full_reads() {
  // A larger file would measure how the system finds memory for it. So that the queue's memory is
  // small in comparison, the queue is short; an instrument does not fill a long one either.
  constexpr std::uint64_t kTotalBytes = 128 << 20;
  constexpr std::uint64_t kQueueChunks = 8;
  constexpr int kRounds = 3;  // by turns; the first one warms up
  const tests::ScratchDirectory directory;
  Figures best = {{"write loop", HUGE_VAL}, {"capture", HUGE_VAL}};
  for (int round = 0; round < kRounds; ++round) {
    const Figures figures = {
        {"write loop", write_loop_seconds(directory.file("plain"), kTotalBytes)},
        {"capture",
         capture_seconds(directory.file("captured"), kTotalBytes, kChunkBytes, kQueueChunks)}};
    for (auto& [figure, seconds] : best) {
      if (round > 0) {
        seconds = std::min(seconds, figures.at(figure));
      }
    }
  }
  if (best["capture"] < best["write loop"]) {
    throw std::runtime_error(
        "a plain write loop took longer than a capture, which does the same and more: the machine "
        "is too busy to measure");
  }
  return best;
}

/// Two ways to handle chunks, so without what the system takes for a file.
Figures measure_short_reads(std::uint64_t read_bytes, std::uint64_t total_bytes) {
  constexpr std::uint64_t kQueueChunks = 128;  // the tool's own
  const std::string nowhere = "/dev/null";
  return {{"regrowing", regrowing_seconds(nowhere, total_bytes, read_bytes, kQueueChunks)},
          {"capture", capture_seconds(nowhere, total_bytes, read_bytes, kQueueChunks)}};
}

}  // namespace

void add_capture(Table& table) {
  constexpr double kFullReads = 2;
  constexpr double kShortReads = 10;
  add_benchmark("capture/1 MiB", measure_full_reads);
  table.add(Row{"capture, reads of 1 MiB: processor time",
                "plain write loop",
                {{"capture/1 MiB", "capture", "write loop"}},
                at_most(kFullReads)});
  table.add(Absolute{"plain loop of 1 MiB writes", "capture/1 MiB", "write loop", 1, "s/GiB"});

  add_benchmark("capture/64 KiB", [] { return measure_short_reads(64 << 10, 256 << 20); });
  add_benchmark("capture/4 KiB", [] { return measure_short_reads(4 << 10, 32 << 20); });
  for (const std::string size : {"64 KiB", "4 KiB"}) {
    table.add(Row{"regrowing a vector, reads of " + size + " to /dev/null: processor time",
                  "capture",
                  {{"capture/" + size, "regrowing", "capture"}},
                  at_least(kShortReads)});
    table.add(Absolute{"capture, reads of " + size, "capture/" + size, "capture", 1, "s/GiB"});
  }
}

}  // namespace orvo::benchmarks
