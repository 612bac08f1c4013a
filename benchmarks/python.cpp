// The Python module against the decoder it stands on, and what importing it costs.

#include <array>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

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
  if (pipe == nullptr || pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
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
      for (const timing::TimeTag& tag : batch) sum += static_cast<std::uint64_t>(tag.time_ps);
      tags += batch.size();
    });
  });
  std::istringstream output(output_of(ORVO_PYTHON " '" + file + "'"));
  double import_seconds = 0;
  double python_seconds = 0;
  std::string python_sum;
  output >> import_seconds >> python_seconds >> python_sum;
  if (python_sum != std::to_string(sum)) throw std::logic_error("the sums differ");
  constexpr double kAllowedImport = 0.05;
  return {{"C++", seconds},
          {"Python", python_seconds},
          {"import", import_seconds / kAllowedImport},
          {"timestamps", static_cast<double>(tags)},
          {"bytes", static_cast<double>(std::filesystem::file_size(file))},
          {"timestamps_hz", 4 * kHz}};
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
}

}  // namespace orvo::benchmarks
