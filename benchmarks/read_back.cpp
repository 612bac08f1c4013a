// Reading recordings back into the statistics that the verdict needs: time and memory.

#include <malloc.h>

#include <fstream>
#include <stdexcept>

#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"
#include "streams.h"
#include "support/scratch.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

constexpr double kCaptureSeconds = 0.35;  // of each frequency in a default run, as the next two
constexpr double kFrequenciesHz[] = {1000, 10000, 100000};
constexpr std::uint64_t kReadBytes = 1 << 20;

struct Written {
  std::string path;
  std::uint64_t payload_bytes = 0;
};

Written write(const std::string& path, std::span<const std::uint8_t> payload) {
  write_recording(path, payload);
  return {path, payload.size()};
}

void read_back(const Written& file) {
  if (verification::read_tag_statistics(file.path, file.payload_bytes, kReadBytes).tags() == 0) {
    throw std::logic_error("a recording has no tags");
  }
}

/// The share of the capture time that read-back adds to a default run.
Figures measure_default_run() {
  static const tests::ScratchDirectory directory;
  static std::vector<Written> files;
  if (files.empty()) {
    for (const double hz : kFrequenciesHz) {
      files.push_back(write(directory.file("run_" + std::to_string(files.size())),
                            captured_bytes(hz, kCaptureSeconds)));
    }
  }
  const auto read_all = [] {
    for (const Written& file : files) {
      read_back(file);
    }
  };
  read_all();
  return {{"share",
           seconds_per_call(read_all) / (kCaptureSeconds * static_cast<double>(files.size()))}};
}

double status_kilobytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key)) {
      return std::stod(line.substr(key.size()));
    }
  }
  throw std::runtime_error("no " + key + " in /proc/self/status");
}

/// By how much reading `file` raises what the process holds, at the most.
double peak_growth_kilobytes(const Written& file) {
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak is what there is now
  const double before = status_kilobytes("VmHWM:");
  read_back(file);
  return status_kilobytes("VmHWM:") - before;
}

Figures measure_memory() {
  const tests::ScratchDirectory directory;
  const std::span<const std::uint8_t> payload = packed_stream(StreamKind::mhz1).bytes;
  return {{"short", peak_growth_kilobytes(
                        write(directory.file("short"), payload.first(payload.size() / 8)))},
          {"long", peak_growth_kilobytes(write(directory.file("long"), payload))}};
}

}  // namespace

void add_read_back(Table& table) {
  constexpr double kShare = 0.0015;
  constexpr double kSameMemory = 1.1;
  add_benchmark("read-back/default run", measure_default_run);
  table.add(Row{"(f) read-back and statistics of a default run: time",
                "capture time",
                {{"read-back/default run", "share", ""}},
                at_most(kShare),
                Unit::percent});
  add_benchmark("read-back/memory", measure_memory);
  table.add(Row{"statistics of 65 MiB: memory",
                "of 8 MiB",
                {{"read-back/memory", "long", "short"}},
                at_most(kSameMemory)});
}

}  // namespace orvo::benchmarks
