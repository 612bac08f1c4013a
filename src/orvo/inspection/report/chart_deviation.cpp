// Deviations over time: an envelope, a strip of overflow records below it and marks above it.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "orvo/inspection/report/chart_scale.h"
#include "orvo/inspection/report/chart_svg.h"
#include "orvo/inspection/report/charts.h"
#include "orvo/inspection/report/html_text.h"
#include "orvo/timing/instrument_time.h"

namespace orvo::inspection {
namespace {

constexpr double kTitlePx = 11;
constexpr double kTopPx = 38;  // the marks' shapes stand above
constexpr double kPlotPx = 150;
constexpr double kBottomPx = kTopPx + kPlotPx;
constexpr double kStripTopPx = kBottomPx + 8;
constexpr double kStripPx = 10;
constexpr double kHeightPx = kStripTopPx + kStripPx + 44;
constexpr double kTickDistance = 14 / kPlotPx;
constexpr std::int64_t kMaxWrapMarks = 50;
constexpr double kStripSteps = 20;
/// Up to here columns are drawn as dots, wide enough to be seen one by one.
constexpr std::size_t kSparseColumns = 600;

constexpr const char* kDown = "M-6-9H6L0 0z";
constexpr const char* kUp = "M-6 0H6L0-9z";
constexpr const char* kDiamond = "M0-10L5-5L0 0L-5-5z";

class DeviationChart {
 public:
  DeviationChart(const RunAnalysis& run, std::size_t channel)
      : run_(run),
        number_(channel),
        channel_(run.channels[channel]),
        scale_(channel_.statistics.common_range_quanta() * run.scale.quantum_ps,
               channel_.statistics.smallest().deviation_ps,
               channel_.statistics.largest().deviation_ps),
        first_ps_(static_cast<double>(run.first_ps)),
        span_ps_(std::max(static_cast<double>(run.last_ps) - first_ps_, 1.0)) {}

  std::string draw() {
    draw_zones();
    draw_time_axis();
    draw_marks();
    draw_envelope();
    draw_extreme(channel_.statistics.largest(), 14);
    draw_extreme(channel_.statistics.smallest(), -6);
    draw_strip();
    return svg_.whole("deviations", kHeightPx, description());
  }

 private:
  [[nodiscard]] double x(std::int64_t time_ps) const {
    return std::clamp((static_cast<double>(time_ps) - first_ps_) / span_ps_, 0.0, 1.0);
  }
  [[nodiscard]] double y_px(double deviation_ps) const {
    return kTopPx + kPlotPx * scale_.position(deviation_ps);
  }
  [[nodiscard]] std::string at(std::int64_t time_ps) const {
    return time_text(static_cast<double>(time_ps) - first_ps_);
  }

  [[nodiscard]] std::string description() const {
    const IntervalStatistics& s = channel_.statistics;
    return fmt::format(
        "Channel {}, deviation of each interval from the expected one over {}: {}, "
        "from {} at {} to {} at {}; {} need overflow records; lock lost {}.",
        number_, time_text(span_ps_), counted(s.intervals(), "interval"),
        signed_time_text(s.smallest().deviation_ps), at(s.smallest().time_ps),
        signed_time_text(s.largest().deviation_ps), at(s.largest().time_ps),
        percent_text(s.with_overflow(), s.intervals()), counted(run_.locks.dropped(), "time"));
  }

  void draw_zones() {
    const double top_px = y_px(scale_.linear_ps());
    const double bottom_px = y_px(-scale_.linear_ps());
    if (scale_.logarithmic_above()) {
      svg_.rect("logzone", 0, kTopPx, 1, top_px - kTopPx);
      draw_zone_name(channel_.statistics.largest(), kTopPx + 12);
    }
    if (scale_.logarithmic_below()) {
      svg_.rect("logzone", 0, bottom_px, 1, kBottomPx - bottom_px);
      draw_zone_name(channel_.statistics.smallest(), kBottomPx - 5);
    }
    for (const Tick& tick : scale_.ticks(kTickDistance)) {
      const double tick_px = kTopPx + kPlotPx * tick.position;
      svg_.line(tick.value == 0 ? "zero" : "grid", 0, tick_px, 1, tick_px);
      svg_.text("tick", 0, tick_px + 4, "end", -7, signed_time_text(tick.value));
    }
    svg_.text("axis", 0, kTitlePx, "start", -50, "deviation from the expected interval");
    svg_.line("frame", 0, kTopPx, 0, kBottomPx);
    svg_.line("frame", 0, kBottomPx, 1, kBottomPx);
  }

  /// Away from the name of the extreme in it.
  void draw_zone_name(const Extreme& extreme, double y_px) {
    const bool right = x(extreme.time_ps) < 0.5;
    svg_.text("zone", right ? 1 : 0, y_px, right ? "end" : "start", right ? -6 : 6, "log scale");
  }

  void draw_time_axis() {
    const double axis_px = kStripTopPx + kStripPx;
    const double span_s = span_ps_ / timing::kPicosecondsPerSecond;
    for (const Tick& tick : ticks_to(span_s, 6)) {
      svg_.line("grid", tick.position, kTopPx, tick.position, axis_px + 4);
      svg_.text("tick", tick.position, axis_px + 18, "middle", 0,
                fmt::format("{:.6g}", tick.value));
    }
    svg_.text("axis", 0.5, axis_px + 37, "middle", 0,
              "seconds of the instrument since the run's first timestamp");
  }

  void draw_mark(const char* kind, std::int64_t time_ps, double shape_px, const char* shape,
                 const char* what) {
    svg_.line(kind, x(time_ps), shape_px, x(time_ps), kBottomPx);
    svg_.shape(kind, x(time_ps), shape_px, shape, what + at(time_ps));
  }

  void draw_marks() {
    const auto wrap_ps = static_cast<std::int64_t>(timing::detail::kWrapPs);
    const auto wraps_before = [&](std::int64_t time_ps) {
      return time_ps / wrap_ps - (time_ps % wrap_ps < 0 ? 1 : 0);
    };
    const std::int64_t first = wraps_before(run_.first_ps);
    const std::int64_t last = std::min(wraps_before(run_.last_ps), first + kMaxWrapMarks);
    for (std::int64_t wrap = first + 1; wrap <= last; ++wrap) {
      draw_mark("wrapped", wrap * wrap_ps, kTopPx - 16, kDiamond,
                "the instrument's clock returned to 0, ");
    }
    for (const auto& [event, time_ps, next_ps] : run_.locks.entries()) {
      if (timing::drops_lock(event.kind) && time_ps) {
        draw_mark("lost", *time_ps, kTopPx - 15, kDown, "lock lost, ");
      } else if (event.kind == timing::LockEvent::Kind::locked && time_ps && next_ps) {
        draw_mark("taken", *next_ps, kTopPx - 3, kUp, "lock taken again, ");
      }
    }
  }

  void draw_envelope() {
    const auto columns = channel_.envelope.columns();
    const double step = ChartSvg::kLayerWidth / static_cast<double>(columns.size());
    std::string path;
    std::size_t used = 0;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (columns[i].intervals != 0) {
        ++used;
        fmt::format_to(std::back_inserter(path), "M{:.4g} {:.1f}V{:.1f}",
                       (static_cast<double>(i) + 0.5) * step, y_px(columns[i].largest_ps) - kTopPx,
                       y_px(columns[i].smallest_ps) - kTopPx);
      }
    }
    svg_.layer(used <= kSparseColumns ? "data sparse" : "data", kTopPx, kPlotPx, path);
  }

  /// Names what is far from the rest.
  void draw_extreme(const Extreme& extreme, double text_px) {
    if (std::abs(extreme.deviation_ps) <= scale_.linear_ps()) {
      return;
    }
    const double place = x(extreme.time_ps);
    const double y = y_px(extreme.deviation_ps);
    const std::string text = signed_time_text(extreme.deviation_ps) + " at " + at(extreme.time_ps);
    svg_.shape("far", place, y, "M-4 0a4 4 0 1 0 8 0a4 4 0 1 0-8 0z", text);
    const bool right = place < 0.5;
    svg_.text("note", place, y + text_px - 9, right ? "start" : "end", right ? 9 : -9, text);
  }

  /// Columns without an interval go on with the share before them.
  void draw_strip() {
    const auto columns = channel_.envelope.columns();
    const double step = ChartSvg::kLayerWidth / static_cast<double>(columns.size());
    std::string path;
    double height = 0;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (columns[i].intervals == 0) {
        continue;
      }
      const double share =
          static_cast<double>(columns[i].with_overflow) / static_cast<double>(columns[i].intervals);
      const double now = std::ceil(share * kStripSteps) / kStripSteps * kStripPx;
      if (now != height) {
        fmt::format_to(std::back_inserter(path), "{}{:.5g}V{:.3g}",
                       path.empty() ? fmt::format("M0 {}H", kStripPx) : "H",
                       static_cast<double>(i) * step, kStripPx - now);
        height = now;
      }
    }
    svg_.rect("striphole", 0, kStripTopPx, 1, kStripPx);
    if (!path.empty()) {
      path += fmt::format("H{0:.0f}V{1:.0f}H0z", ChartSvg::kLayerWidth, kStripPx);
      svg_.layer("strip", kStripTopPx, kStripPx, path);
    }
    svg_.text("tick", 0, kStripTopPx + 9, "end", -7, "overflow");
  }

  const RunAnalysis& run_;
  std::size_t number_;
  const ChannelAnalysis& channel_;
  DeviationScale scale_;
  double first_ps_;
  double span_ps_;
  ChartSvg svg_;
};

}  // namespace

std::string deviation_chart(const RunAnalysis& run, std::size_t channel) {
  return DeviationChart(run, channel).draw();
}

}  // namespace orvo::inspection
