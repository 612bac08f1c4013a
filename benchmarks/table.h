// What speed is reported by: speeds as a user sees them, and ratios, each with its goal.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "results.h"

namespace orvo::benchmarks {

/// How fast something is. Its benchmark says what the seconds of `figure` are for: "timestamps" and
/// "bytes"; "timestamps_hz" is how many a second of real time has.
struct Speed {
  std::string what;
  std::string benchmark;
  std::string figure;
};

/// Two figures of one benchmark. Without a denominator the numerator is a ratio already.
struct Ratio {
  std::string benchmark;
  std::string numerator;
  std::string denominator;
};

struct Goal {
  enum class Kind { at_most, at_least };
  Kind kind;
  double limit;
};

[[nodiscard]] inline Goal at_most(double limit) { return {Goal::Kind::at_most, limit}; }
[[nodiscard]] inline Goal at_least(double limit) { return {Goal::Kind::at_least, limit}; }

enum class Unit { times, percent };

struct Row {
  std::string what;
  std::string against;
  std::vector<Ratio> ratios;  ///< of several, the one furthest from the goal counts and is named
  Goal goal;
  Unit unit = Unit::times;
};

/// An absolute figure, by which a reader judges the machine and the yardsticks.
struct Absolute {
  std::string what;
  std::string benchmark;
  std::string figure;
  double scale = 1;
  std::string unit;
};

class Table {
 public:
  void add(Speed speed) { speeds_.push_back(std::move(speed)); }
  void add(Row row) { rows_.push_back(std::move(row)); }
  void add(Absolute absolute) { absolutes_.push_back(std::move(absolute)); }

  /// Speeds and ratios of the best of all repetitions, with the range over the single ones. Rows
  /// without results are left out.
  void print(std::ostream& out, const Results& results) const;

 private:
  std::vector<Speed> speeds_;
  std::vector<Row> rows_;
  std::vector<Absolute> absolutes_;
};

}  // namespace orvo::benchmarks
