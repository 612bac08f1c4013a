#include "table.h"

#include <algorithm>
#include <iomanip>
#include <optional>
#include <sstream>

namespace orvo::benchmarks {
namespace {

struct Value {
  double best = 0;  // ratio of the best numerator to the best denominator
  double min = 0;   // of the ratios of single repetitions
  double max = 0;
  std::string benchmark;
};

/// The least of a figure's repetitions; all figures are costs.
double best_of(const std::vector<Figures>& repetitions, const std::string& figure) {
  if (figure.empty()) {
    return 1;
  }
  double best = repetitions.front().at(figure);
  for (const Figures& figures : repetitions) {
    best = std::min(best, figures.at(figure));
  }
  return best;
}

std::optional<Value> value_of(const Ratio& ratio, const Results& results) {
  const auto found = results.find(ratio.benchmark);
  if (found == results.end() || found->second.empty()) {
    return std::nullopt;
  }
  std::vector<double> values;
  for (const Figures& figures : found->second) {
    values.push_back(figures.at(ratio.numerator) /
                     (ratio.denominator.empty() ? 1 : figures.at(ratio.denominator)));
  }
  const auto [min, max] = std::minmax_element(values.begin(), values.end());
  return Value{best_of(found->second, ratio.numerator) / best_of(found->second, ratio.denominator),
               *min, *max, ratio.benchmark};
}

std::optional<Value> worst_of(const Row& row, const Results& results) {
  std::optional<Value> worst;
  for (const Ratio& ratio : row.ratios) {
    const std::optional<Value> value = value_of(ratio, results);
    if (!value) {
      continue;
    }
    const bool worse =
        !worst || (row.goal.kind == Goal::Kind::at_least ? value->best < worst->best
                                                         : value->best > worst->best);
    if (worse) {
      worst = value;
    }
  }
  return worst;
}

std::string number(double value) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(value >= 100 ? 0 : value >= 10 ? 1 : 2) << value;
  return text.str();
}

std::string with_unit(double value, Unit unit) {
  return unit == Unit::percent ? number(100 * value) + " %" : number(value) + " x";
}

void print_speed(std::ostream& out, const Speed& speed, const std::vector<Figures>& repetitions) {
  const auto [fastest, slowest] = std::minmax_element(
      repetitions.begin(), repetitions.end(), [&](const Figures& one, const Figures& other) {
        return one.at(speed.figure) < other.at(speed.figure);
      });
  const auto per_second = [&](const Figures& figures, const char* of) {
    return figures.at(of) / figures.at(speed.figure);
  };
  constexpr double kMillion = 1e6;
  out << "| " << speed.what << " | " << number(per_second(*fastest, "timestamps") / kMillion)
      << " | " << number(per_second(*slowest, "timestamps") / kMillion) << " | "
      << number(per_second(*fastest, "bytes") / kMillion) << " | "
      << number(per_second(*fastest, "timestamps") / fastest->at("timestamps_hz")) << " |\n";
}

void print_row(std::ostream& out, const Row& row, const Value& value) {
  out << "| " << row.what;
  if (row.ratios.size() > 1) {
    out << " (" << value.benchmark << ')';
  }
  out << " | " << row.against << " | " << with_unit(value.best, row.unit) << " | "
      << with_unit(value.min, row.unit) << " .. " << with_unit(value.max, row.unit) << " | ";
  const bool at_most = row.goal.kind == Goal::Kind::at_most;
  const bool met = at_most ? value.best <= row.goal.limit : value.best >= row.goal.limit;
  out << (at_most ? "<= " : ">= ") << with_unit(row.goal.limit, row.unit)
      << (met ? " | yes |\n" : " | NO |\n");
}

}  // namespace

void Table::print(std::ostream& out, const Results& results) const {
  out << "| what | million timestamps/s | slowest repetition | MB/s | times real time |\n"
      << "|---|---|---|---|---|\n";
  for (const Speed& speed : speeds_) {
    const auto found = results.find(speed.benchmark);
    if (found != results.end() && !found->second.empty()) {
      print_speed(out, speed, found->second);
    }
  }
  out << "\n| what | relative to | ratio | range | goal | met |\n|---|---|---|---|---|---|\n";
  for (const Row& row : rows_) {
    if (const std::optional<Value> value = worst_of(row, results)) {
      print_row(out, row, *value);
    }
  }
  out << '\n';
  for (const Absolute& absolute : absolutes_) {
    const auto found = results.find(absolute.benchmark);
    if (found == results.end() || found->second.empty()) {
      continue;
    }
    out << "- " << absolute.what << ": "
        << number(absolute.scale * best_of(found->second, absolute.figure)) << ' ' << absolute.unit
        << '\n';
  }
}

}  // namespace orvo::benchmarks
