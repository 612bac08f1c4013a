// The Python module against the decoder it stands on, what importing it costs, and an archive of
// runs on all processors.

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orvo/timing/stream_files.h"
#include "streams.h"
#include "support/scratch.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

constexpr double kHz = 100'000;
constexpr double kSeconds = 30;  // about 55 MiB

std::string output_of(const std::string& command) {
  std::FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  std::array<char, 256> line = {};
  while (pipe != nullptr && std::fgets(line.data(), line.size(), pipe) != nullptr) {
    output += line.data();
  }
  if (pipe == nullptr || pclose(pipe) != 0) {
    throw std::runtime_error("failed: " + command);
  }
  return output;
}

Figures measure_python() {
  static const tests::ScratchDirectory directory;
  static const std::string file = directory.file("recording");
  if (!std::filesystem::exists(file)) {
    write_recording(file, captured_bytes(kHz, kSeconds));
  }
  std::uint64_t sum = 0;  // modulo 2^64
  std::size_t tags = 0;
  const double seconds = seconds_of([&] {
    timing::StreamFileReader reader;
    reader.open(file);
    reader.for_each_batch(kChunkBytes, [&](auto batch) {
      for (const timing::TimeTag& tag : batch) {
        sum += static_cast<std::uint64_t>(tag.time_ps);
      }
      tags += batch.size();
    });
  });
  std::istringstream output(output_of(ORVO_PYTHON "/sum_times.py' '" + file + "'"));
  double import_seconds = 0;
  double python_seconds = 0;
  std::string python_sum;
  output >> import_seconds >> python_seconds >> python_sum;
  if (python_sum != std::to_string(sum)) {
    throw std::logic_error("the sums differ");
  }
  constexpr double kAllowedImport = 0.05;
  return {{"C++", seconds},
          {"Python", python_seconds},
          {"import", import_seconds / kAllowedImport},
          {"timestamps", static_cast<double>(tags)},
          {"bytes", static_cast<double>(std::filesystem::file_size(file))},
          {"timestamps_hz", 4 * kHz}};
}

/// Seconds that an archive takes, and how many processors take part.
struct OnThreads {
  double seconds = 0;
  int processors = 0;
};

OnThreads judge_archive(const std::filesystem::path& root, int expected_recordings) {
  std::istringstream output(output_of(ORVO_PYTHON "/judge_archive.py' '" + root.string() + "'"));
  OnThreads found;
  int recordings = 0;
  output >> found.seconds >> recordings >> found.processors;
  if (recordings != expected_recordings) {
    throw std::logic_error("the archive has other recordings");
  }
  return found;
}

/// Reads and decodes each of the files, and does nothing else.
void decode_on_threads(const std::vector<std::string>& files, int threads) {
  std::atomic<std::size_t> next = 0;
  const auto decode = [&] {
    for (std::size_t mine = next++; mine < files.size(); mine = next++) {
      timing::StreamFileReader reader;
      reader.open(files[mine]);
      reader.for_each_batch(kChunkBytes, [](auto) {});
    }
  };
  std::vector<std::thread> all;
  for (int i = 0; i < threads; ++i) {
    all.emplace_back(decode);
  }
  for (std::thread& thread : all) {
    thread.join();
  }
}

/// Recordings of 16 MiB and more, and the decoder alone on as many threads: processors that share a
/// core, or a memory, do not come to twice the rate of one.
Figures measure_large_archive() {
  constexpr double kLargeSeconds = 10;
  constexpr int kRecordings = 8;
  static const tests::ScratchDirectory directory;
  static std::vector<std::string> files;
  while (files.size() < kRecordings) {
    files.push_back(
        directory.file("overflow_frequency_0" + std::to_string(files.size() + 1) + ".ortime"));
    if (files.size() == 1) {
      write_recording(files[0], captured_bytes(kHz, kLargeSeconds));
    } else {
      std::filesystem::copy_file(files[0], files.back());
    }
  }
  const OnThreads archive = judge_archive(directory.path(), kRecordings);
  double decoder = std::numeric_limits<double>::infinity();
  for (int round = 0; round < 5; ++round) {  // as the archive's
    decoder = std::min(decoder, seconds_of([&] { decode_on_threads(files, archive.processors); }));
  }
  return {{"archive", archive.seconds}, {"decoder", decoder}};
}

/// Runs as the tool makes them by default, and `ortime verify` for one after the other.
Figures measure_archive_of_runs() {
  constexpr int kRuns = 100;
  static const tests::ScratchDirectory directory;
  const std::filesystem::path root = directory.path();
  if (std::filesystem::is_empty(root)) {
    output_of("cd '" + root.string() +
              "' && ORVO_SIM= " ORVO_PROGRAMS "/ot-simulated " ORVO_PROGRAMS
              "/ot_verify_overflow_frequency --output-root=out"
              " 2>&1 && mv out/2* 100 && rm -r out && for i in $(seq 99); do cp -r 100 $i; done");
  }
  constexpr int kRecordings = 3 * kRuns;
  const double seconds = seconds_of([&] {
    output_of("for run in '" + root.string() +
              "'/*; do " ORVO_PROGRAMS "/ortime verify \"$run\"; done");
  });
  const OnThreads archive = judge_archive(root, kRecordings);
  return {{"archive", archive.seconds / kRecordings}, {"ortime verify", seconds / kRecordings}};
}

}  // namespace

void add_python(Table& table) {
  if (std::string(ORVO_PYTHON).empty()) {
    std::cerr << "The Python module is not built: its rows are left out.\n";
    return;
  }
  constexpr double kOverhead = 1.3;
  add_benchmark("python", measure_python);
  table.add(Speed{"sum of all times by blocks() in Python, 4 x 100 kHz", "python", "Python"});
  table.add(Row{"Python, sum of all times by blocks(): time",
                "the same in C++",
                {{"python", "Python", "C++"}},
                at_most(kOverhead)});
  table.add(Row{"import orvo_timing beside NumPy: time",
                "50 ms",
                {{"python", "import", ""}},
                at_most(1),
                Unit::percent});
  constexpr double kThreads = 0.8;
  add_benchmark("large archive", measure_large_archive);
  add_benchmark("archive of runs", measure_archive_of_runs);
  table.add(Row{"archive on threads, recordings of 18 MiB: rate",
                "decoding alone on as many threads",
                {{"large archive", "decoder", "archive"}},
                at_least(kThreads)});
  table.add(Row{"archive on threads, default runs: rate",
                "a loop of ortime verify",
                {{"archive of runs", "ortime verify", "archive"}},
                at_least(1)});
  constexpr double kMicroseconds = 1e6;
  table.add(Absolute{"archive on threads, default runs, a recording", "archive of runs", "archive",
                     kMicroseconds, "us"});
  table.add(Absolute{"a loop of ortime verify over them, a recording", "archive of runs",
                     "ortime verify", kMicroseconds, "us"});
}

}  // namespace orvo::benchmarks
