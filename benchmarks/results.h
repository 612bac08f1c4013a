// What the benchmarks have measured. A benchmark measures everything that is compared with each
// other, one after the other, in a single iteration, and leaves each figure as a counter: so a
// ratio never spans more than a second or so of a busy machine. Its repetitions give the range.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace orvo::benchmarks {

using Figures = std::map<std::string, double>;                // counters of one repetition
using Results = std::map<std::string, std::vector<Figures>>;  // repetitions of each benchmark

/// Registers a benchmark; one call of `measure` is one repetition. What it throws ends the
/// benchmark with an error.
void add_benchmark(const std::string& name, std::function<Figures()> measure);

/// Runs what is registered. False when a benchmark failed; which is reported on standard error.
[[nodiscard]] bool run_benchmarks(Results& results);

template <typename Function>
double seconds_of(const Function& function) {
  const auto start = std::chrono::steady_clock::now();
  function();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Of one call, out of as many as fill 5 ms: for what takes microseconds.
template <typename Function>
double seconds_per_call(const Function& function) {
  constexpr double kEnoughSeconds = 0.005;
  double seconds = 0;
  double calls = 0;
  while (seconds < kEnoughSeconds) {
    seconds += seconds_of(function);
    ++calls;
  }
  return seconds / calls;
}

/// Processor time, user and system, that `function` takes: of RUSAGE_SELF or RUSAGE_THREAD.
[[nodiscard]] double processor_seconds_of(int who, const std::function<void()>& function);

}  // namespace orvo::benchmarks
