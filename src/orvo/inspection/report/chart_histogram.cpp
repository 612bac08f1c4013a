// How often which deviation occurs, in quanta.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "orvo/inspection/report/chart_scale.h"
#include "orvo/inspection/report/chart_svg.h"
#include "orvo/inspection/report/charts.h"
#include "orvo/inspection/report/html_text.h"

namespace orvo::inspection {
namespace {

constexpr double kTitlePx = 11;
constexpr double kTopPx = 38;
constexpr double kPlotPx = 150;
constexpr double kBottomPx = kTopPx + kPlotPx;
constexpr double kHeightPx = kBottomPx + 44;
/// Where the bars are; the outer bins have the rest.
constexpr double kLeft = 0.14;
constexpr double kRight = 0.86;
constexpr double kOuterWidth = 0.09;
/// A largest bar of at least this many intervals hides single ones on a linear axis.
constexpr std::uint64_t kLogarithmicFrom = 50;
constexpr double kFloor = 0.35;  // decades below 1, so that a count of 1 is seen

class HistogramChart {
 public:
  HistogramChart(const RunAnalysis& run, std::size_t channel)
      : number_(channel),
        histogram_(run.channels[channel].histogram),
        mode_(static_cast<std::size_t>(
            std::max_element(histogram_.bars().begin(), histogram_.bars().end()) -
            histogram_.bars().begin())),
        largest_(std::max({histogram_.bars()[mode_], histogram_.below(), histogram_.above()})),
        logarithmic_(largest_ >= kLogarithmicFrom),
        top_(1.06 * units(static_cast<double>(largest_))),
        range_(histogram_.edge_quanta(histogram_.bars().size())),
        quantum_ps_(run.scale.quantum_ps) {}

  std::string draw() {
    draw_count_axis();
    draw_quanta_axis();
    const auto bars = histogram_.bars();
    const double width = (kRight - kLeft) / static_cast<double>(bars.size());
    for (std::size_t i = 0; i < bars.size(); ++i) {
      draw_bar("bar", kLeft + width * static_cast<double>(i), width, bars[i], bar_name(i));
    }
    draw_bar("outer", 0, kOuterWidth, histogram_.below(), "less");
    draw_bar("outer", 1 - kOuterWidth, kOuterWidth, histogram_.above(), "more");
    return svg_.whole("histogram", kHeightPx, description());
  }

 private:
  [[nodiscard]] double units(double count) const {
    return !logarithmic_ ? count : count < 1 ? 0 : std::log10(count) + kFloor;
  }
  [[nodiscard]] double y_px(double count) const {
    return kBottomPx - kPlotPx * units(count) / top_;
  }

  [[nodiscard]] std::string description() const {
    return fmt::format(
        "Channel {}, histogram of the deviations in quanta of {} ps, {} axis of counts. Most often "
        "{}: {}. Below {:g} quanta: {}. Above {:g} quanta: {}.",
        number_, quantum_ps_, logarithmic_ ? "logarithmic" : "linear", bar_name(mode_),
        counted(histogram_.bars()[mode_], "interval"), -range_, histogram_.below(), range_,
        histogram_.above());
  }

  [[nodiscard]] std::string bar_name(std::size_t index) const {
    const double from = histogram_.edge_quanta(index);
    const double to = histogram_.edge_quanta(index + 1);
    if (histogram_.bar_quanta() == 1) {
      return signed_text(from + 0.5, 0) + " quanta";
    }
    return signed_text(from + 0.5, 0) + " to " + signed_text(to - 0.5, 0) + " quanta";
  }

  static std::string count_text(double count) {
    return count < 1e6 ? grouped(static_cast<std::uint64_t>(count))
                       : fmt::format("{:g}\u00A0million", count / 1e6);
  }

  void draw_bar(const char* kind, double left, double width, std::uint64_t count,
                const std::string& name) {
    if (count != 0) {
      const double top = y_px(static_cast<double>(count));
      svg_.rect(kind, left, top, width, kBottomPx - top, name + ": " + counted(count, "interval"));
    }
  }

  void draw_count_axis() {
    const auto tick = [&](double count) {
      svg_.line("grid", 0, y_px(count), 1, y_px(count));
      svg_.text("tick", 0, y_px(count) + 4, "end", -7, count_text(count));
    };
    const auto largest = static_cast<double>(largest_);
    if (logarithmic_) {
      const int decades = static_cast<int>(std::log10(largest));
      for (int decade = 0; decade <= decades; decade += decades / 6 + 1) {
        tick(std::pow(10, decade));
      }
    } else {
      const auto step = static_cast<std::uint64_t>(std::max(1.0, round_number_above(largest / 4)));
      for (std::uint64_t count = 0; count <= largest_; count += step) {
        tick(static_cast<double>(count));
      }
    }
    svg_.text("axis", 0, kTitlePx, "start", -50,
              logarithmic_ ? "intervals (log scale)" : "intervals (linear scale)");
    svg_.line("frame", 0, kBottomPx, 1, kBottomPx);
  }

  /// Short enough for three of them in half the width of a phone.
  static std::string quanta_text(double quanta) {
    const double magnitude = std::abs(quanta);
    return magnitude < 1e4   ? signed_text(quanta, 0)
           : magnitude < 1e6 ? signed_text(quanta / 1e3, 0) + "k"
           : magnitude < 1e9 ? signed_text(quanta / 1e6, 0) + "M"
                             : fmt::format("{:+.0e}", quanta);
  }

  void draw_quanta_axis() {
    const double middle = (kLeft + kRight) / 2;
    const double tick = std::max(1.0, round_number_above(range_ / 4));
    for (const double quanta : {-tick, 0.0, tick}) {
      const double place = middle + (kRight - kLeft) / 2 * quanta / range_;
      svg_.line("frame", place, kBottomPx, place, kBottomPx + 4);
      svg_.text("tick", place, kBottomPx + 18, "middle", 0, quanta_text(quanta));
    }
    svg_.text("tick", kOuterWidth / 2, kBottomPx + 18, "middle", 0, "less");
    svg_.text("tick", 1 - kOuterWidth / 2, kBottomPx + 18, "middle", 0, "more");
    svg_.text("axis", middle, kBottomPx + 37, "middle", 0,
              fmt::format("deviation (quanta of {:g}\u00A0ps)", quantum_ps_));
  }

  std::size_t number_;
  const IntervalHistogram& histogram_;
  std::size_t mode_;  // the bar of the most frequent deviations
  std::uint64_t largest_;
  bool logarithmic_;
  double top_;
  double range_;  // quanta, where the bars end
  double quantum_ps_;
  ChartSvg svg_;
};

}  // namespace

std::string histogram_chart(const RunAnalysis& run, std::size_t channel) {
  return HistogramChart(run, channel).draw();
}

}  // namespace orvo::inspection
