// Prints a table of speeds and one of ratios, measured inside this one run, and below them the
// yardsticks on this machine. Flags are those of Google Benchmark; without any, seven repetitions
// of each benchmark run in random order.

#include <benchmark/benchmark.h>

#include <iostream>
#include <string>
#include <vector>

#include "topics.h"

int main(int argc, char** argv) {
  using namespace orvo::benchmarks;
  std::string repetitions = "--benchmark_repetitions=7";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> arguments = {argv[0], repetitions.data(), interleaving.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 1;
  }

  Table table;
  add_decoding(table);
  add_lost_locks(table);
  add_unsynced_channels(table);
  add_lock_search(table);
  add_read_back(table);
  add_inspection(table);
  add_python(table);
  add_capture(table);
  add_instrument_and_tool(table);

  Results results;
  const bool complete = run_benchmarks(results);
  table.print(std::cout, results);
  return complete ? 0 : 1;
}
