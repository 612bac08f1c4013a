#include "results.h"

#include <sys/resource.h>

#include <exception>
#include <iostream>
#include <utility>

namespace orvo::benchmarks {
namespace {

/// Keeps the counters of every repetition; what is shown are the ratios at the end.
class Collector : public benchmark::BenchmarkReporter {
 public:
  explicit Collector(Results& results) : results_(results) {}

  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) {
        continue;
      }
      const std::string& name = run.run_name.function_name;
      if (run.error_occurred) {
        std::cerr << name << ": " << run.error_message << '\n';
        failed_ = true;
        continue;
      }
      Figures figures;
      for (const auto& [counter, figure] : run.counters) {
        figures[counter] = figure;
      }
      results_[name].push_back(std::move(figures));
    }
  }

  [[nodiscard]] bool failed() const { return failed_; }

 private:
  Results& results_;
  bool failed_ = false;
};

double processor_seconds(int who) {
  rusage usage = {};
  getrusage(who, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

void add_benchmark(const std::string& name, std::function<Figures()> measure) {
  const auto run = [measure = std::move(measure)](benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
      try {
        for (const auto& [figure, value] : measure()) {
          state.counters[figure] = value;
        }
      } catch (const std::exception& error) {
        state.SkipWithError(error.what());
      }
    }
  };
  benchmark::RegisterBenchmark(name.c_str(), run)->Iterations(1);
}

bool run_benchmarks(Results& results) {
  Collector collector(results);
  benchmark::RunSpecifiedBenchmarks(&collector);
  return !collector.failed();
}

double processor_seconds_of(int who, const std::function<void()>& function) {
  const double before = processor_seconds(who);
  function();
  return processor_seconds(who) - before;
}

}  // namespace orvo::benchmarks
