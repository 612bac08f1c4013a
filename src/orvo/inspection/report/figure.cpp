#include "orvo/inspection/report/figure.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <utility>

#include "orvo/inspection/report/scale.h"
#include "orvo/inspection/report/svg.h"
#include "orvo/inspection/text.h"
#include "orvo/timing/instrument_time.h"

namespace orvo::inspection {
namespace {

using verification::kChannels;

// Three panels side by side: where they begin, and how wide they are.
struct Panel {
  double left;
  double width;
};
constexpr Panel kTime = {0, 0.66};
constexpr Panel kHistogram = {0.69, 0.14};
constexpr Panel kSkew = {0.86, 0.14};

constexpr double kHeadPx = 42;
constexpr double kTopPx = 23;  // of the plot in a row, below the channel's name
constexpr double kPlotPx = Scale::kHeightPx;
constexpr double kBottomPx = kTopPx + kPlotPx;
constexpr double kStripPx = 5;
constexpr double kRowPx = kBottomPx + 10;
constexpr double kAxisPx = 40;

constexpr int kMaxWrapMarks = 50;
/// Up to here columns are dots, wide enough to be seen one by one.
constexpr std::size_t kSparseColumns = 600;
constexpr std::size_t kMaxNamedBars = 9;

constexpr const char* kDown = "M-6-9H6L0 0z";
constexpr const char* kUp = "M-6 0H6L0-9z";
constexpr const char* kDiamond = "M0-10L5-5L0 0L-5-5z";
constexpr const char* kCircle = "M-4 0a4 4 0 1 0 8 0a4 4 0 1 0-8 0z";

/// Bins that would touch, as one.
struct Bar {
  double y;
  double low_ps;
  double high_ps;
  std::uint64_t count;
};

/// A run and where its values stand.
struct Axes {
  explicit Axes(const Recording& recording)
      : run(recording),
        scale(run),
        first_ps(static_cast<double>(run.first_ps)),
        span_ps(std::max(static_cast<double>(run.last_ps) - first_ps, 1.0)),
        bar_px(std::clamp(0.8 * (scale.y(0) - scale.y(run.tick_ps)), 2.0, 11.0)) {
    for (std::size_t i = 0; i < kChannels; ++i) {
      deviations[i] = bars_of(run.channels[i].deviations, 0);
      skews[i] = bars_of(run.channels[i].skews, run.channels[i].skew.median_ps);
    }
  }

  [[nodiscard]] double time_share(double time_ps) const {
    return std::clamp((time_ps - first_ps) / span_ps, 0.0, 1.0);
  }
  /// Where a column's data is in its layer.
  [[nodiscard]] double layer_x(std::int64_t column) const {
    const double middle = static_cast<double>(column) + 0.5;
    return Svg::kLayerWidth * time_share(middle * static_cast<double>(run.column_ps));
  }
  /// How long a bar is, so that a count of 1 is seen and its name has room after the longest.
  [[nodiscard]] double bar_share(double count) const {
    constexpr double kFloor = 0.4;  // decades below 1
    return 0.72 * (std::log10(count) + kFloor) / (std::log10(largest_count) + kFloor);
  }

  const Recording& run;
  Scale scale;
  double first_ps;
  double span_ps;
  double bar_px;  // height of a bar
  std::array<std::vector<Bar>, kChannels> deviations;
  std::array<std::vector<Bar>, kChannels> skews;
  double largest_count = 10;  // of a bar

 private:
  std::vector<Bar> bars_of(std::span<const Bin> bins, double middle_ps) {
    std::vector<Bar> bars;
    for (const Bin& bin : bins) {
      const double y = kTopPx + scale.y(bin.value_ps - middle_ps);
      if (bars.empty() || bars.back().y - y >= bar_px) {
        bars.push_back({y, bin.value_ps - bin.width_ps / 2, 0, 0});
      }
      bars.back().high_ps = bin.value_ps + bin.width_ps / 2;
      bars.back().count += bin.count;
      largest_count = std::max(largest_count, static_cast<double>(bars.back().count));
    }
    return bars;
  }
};

/// What happened to the whole stream: a line through all rows, and a shape at its head.
struct Mark {
  const char* kind;
  double time_ps;
  double head_px;
  const char* shape;
  const char* what;
};

std::vector<Mark> lock_marks(const Recording& run, std::vector<std::string>& left_out) {
  const auto shown = [&](const std::optional<std::int64_t>& time_ps) {
    return time_ps && *time_ps >= run.first_ps && *time_ps <= run.last_ps;
  };
  std::vector<Mark> marks;
  std::uint64_t lost = 0;
  for (const auto& [event, time_ps, next_ps] : run.locks.entries()) {
    if (timing::drops_lock(event.kind) && shown(time_ps)) {
      marks.push_back({"lost", static_cast<double>(*time_ps), kHeadPx - 13, kDown, "lock lost"});
      ++lost;
    } else if (event.kind == timing::LockEvent::Kind::locked && time_ps && shown(next_ps)) {
      marks.push_back(
          {"taken", static_cast<double>(*next_ps), kHeadPx - 1, kUp, "lock taken again"});
    }
  }
  if (const std::uint64_t all = run.locks.dropped(); all > lost) {
    left_out.push_back(
        fmt::format("{} of {} not marked.", grouped(all - lost), counted(all, "lost lock")));
  }
  return marks;
}

std::vector<Mark> wrap_marks(const Axes& axes, std::vector<std::string>& left_out) {
  const auto wrap_ps = static_cast<double>(timing::detail::kWrapPs);
  const double first = std::floor(axes.first_ps / wrap_ps) + 1;
  const double all = std::floor((axes.first_ps + axes.span_ps) / wrap_ps) - first + 1;
  std::vector<Mark> marks;
  for (int i = 0; i < kMaxWrapMarks && i < all; ++i) {
    marks.push_back(
        {"wrapped", (first + i) * wrap_ps, kHeadPx - 14, kDiamond, "clock returned to 0"});
  }
  if (all > kMaxWrapMarks) {
    left_out.push_back(fmt::format("{} of {} of the clock to 0 not marked.",
                                   grouped(static_cast<std::uint64_t>(all - kMaxWrapMarks)),
                                   counted(static_cast<std::uint64_t>(all), "return")));
  }
  return marks;
}

std::string draw_head(const Axes& axes, const std::vector<Mark>& marks) {
  Svg svg;
  svg.text("title", kTime.left, 12, "start", 0, "deviation over time");
  svg.text("title", kHistogram.left, 12, "start", 0, "counts");
  svg.text("title", kSkew.left, 12, "start", 0, axes.run.reference ? "skew" : "");
  std::vector<std::string> all;
  for (const Mark& mark : marks) {
    const double x = kTime.width * axes.time_share(mark.time_ps);
    all.push_back(fmt::format("{}, {}", mark.what, time_text(mark.time_ps - axes.first_ps)));
    svg.line(mark.kind, x, mark.head_px, x, kHeadPx);
    svg.shape(mark.kind, x, mark.head_px, mark.shape, all.back());
  }
  return svg.element("plot", kHeadPx,
                     fmt::format("Marks of the whole stream: {}",
                                 all.empty() ? "none" : fmt::format("{}", fmt::join(all, "; "))));
}

void draw_frame(Svg& svg, const Axes& axes, const Panel& panel, bool with_grid) {
  for (const double tick : with_grid ? axes.scale.ticks() : std::vector<double>()) {
    const double y = kTopPx + axes.scale.y(tick);
    svg.line(tick == 0 ? "zero" : "grid", panel.left, y, panel.left + panel.width, y);
    if (panel.left == 0) {
      svg.text("tick", 0, y + 4, "end", -7, signed_time_text(tick));
    }
  }
  svg.line("frame", panel.left, kTopPx, panel.left, kBottomPx);
}

/// Each column from its smallest to its largest deviation; darker what is within a standard
/// deviation of its mean. Returns whether there is a difference.
bool draw_columns(Svg& svg, const Axes& axes, std::size_t number) {
  const ChannelRecording& channel = axes.run.channels[number];
  std::string all;
  std::string most;
  std::size_t used = 0;
  const auto stroke = [&](std::string& path, std::int64_t column, double from_ps, double to_ps) {
    fmt::format_to(std::back_inserter(path), "M{:.4g} {:.1f}V{:.1f}", axes.layer_x(column),
                   axes.scale.y(from_ps), axes.scale.y(to_ps));
  };
  for (const auto& [index, column] : axes.run.columns) {
    const IntervalSummary& s = column.channels[number];
    if (s.intervals == 0) {
      continue;
    }
    ++used;
    const double smallest_ps = channel.deviation_ps(s.shortest);
    const double largest_ps = channel.deviation_ps(s.longest);
    const double spread_ps = s.near.count == 0
                                 ? std::numeric_limits<double>::infinity()
                                 : std::sqrt(s.near.squares / static_cast<double>(s.near.count));
    if (largest_ps > smallest_ps) {
      stroke(all, index, largest_ps, smallest_ps);
    }
    stroke(most, index, std::min(s.near.mean_ps + spread_ps, largest_ps),
           std::max(s.near.mean_ps - spread_ps, smallest_ps));
  }
  svg.layer("all", kTime.width, kTopPx, kPlotPx, all);
  svg.layer(used <= kSparseColumns ? "most sparse" : "most", kTime.width, kTopPx, kPlotPx, most);
  return !all.empty();
}

/// The share of intervals with overflow records; returns whether there are any.
bool draw_overflow(Svg& svg, const Axes& axes, std::size_t number) {
  std::string path;
  for (const auto& [index, column] : axes.run.columns) {
    const IntervalSummary& s = column.channels[number];
    if (s.with_overflow != 0) {
      const double share = static_cast<double>(s.with_overflow) / static_cast<double>(s.intervals);
      fmt::format_to(std::back_inserter(path), "M{:.4g} {}V{:.1f}", axes.layer_x(index), kStripPx,
                     kStripPx * (1 - share));
    }
  }
  svg.layer("overflow", kTime.width, kBottomPx + 3, kStripPx, path);
  return !path.empty();
}

/// Names what is far from the rest; returns whether it is.
bool draw_extreme(Svg& svg, const Axes& axes, double deviation_ps, std::int64_t time_ps) {
  if (!axes.scale.in_tail(deviation_ps)) {
    return false;
  }
  const double share = axes.time_share(static_cast<double>(time_ps));
  const double x = kTime.width * share;
  const double y = kTopPx + axes.scale.y(deviation_ps);
  const std::string words = signed_time_text(deviation_ps) + " at " +
                            time_text(static_cast<double>(time_ps) - axes.first_ps);
  svg.shape("far", x, y, kCircle, words);
  svg.text("note", x, y + 4, share < 0.5 ? "start" : "end", share < 0.5 ? 9 : -9, words);
  return true;
}

/// Bars where their values are on the row's scale: with names if there is room, else on its grid.
void draw_bars(Svg& svg, const Axes& axes, const Panel& panel, std::span<const Bar> bars,
               const char* thing) {
  const bool named = bars.size() <= kMaxNamedBars && axes.bar_px > 8;
  draw_frame(svg, axes, panel, !named);
  for (const Bar& bar : bars) {
    const double length = panel.width * axes.bar_share(static_cast<double>(bar.count));
    const std::string low = signed_text(bar.low_ps, 1);
    const std::string high = signed_text(bar.high_ps, 1);
    svg.rect("bar", panel.left, bar.y - axes.bar_px / 2, length, axes.bar_px,
             fmt::format("{}{} ps: {}", low, low == high ? "" : " to " + high,
                         counted(bar.count, thing)));
    if (named) {
      svg.text("bin", panel.left + length, bar.y + 3.5, "start", 4,
               low == high ? low : signed_time_text((bar.low_ps + bar.high_ps) / 2, 3));
    }
  }
}

std::string draw_row(const Axes& axes, const std::vector<Mark>& marks, std::size_t number,
                     bool overflow_varies, std::set<std::string>& kinds) {
  const ChannelRecording& channel = axes.run.channels[number];
  const IntervalSummary& intervals = channel.intervals;
  const double middle_px = kTopPx + kPlotPx / 2;
  Svg svg;
  svg.text("channel", 0, kTopPx - 8, "start", -64, fmt::format("channel {}", number));
  for (const Mark& mark : marks) {
    const double x = kTime.width * axes.time_share(mark.time_ps);
    svg.line(mark.kind, x, 0, x, kRowPx);
  }
  draw_frame(svg, axes, kTime, intervals.intervals != 0);
  const auto note = [&](const char* kind, bool drawn) {
    if (drawn) {
      kinds.insert(kind);
    }
  };
  std::string description =
      "no intervals: " + counted(axes.run.tags.channel(number).count, "timestamp");
  if (intervals.intervals == 0) {
    svg.text("none", kTime.width / 2, middle_px - 6, "middle", 0, description);
  } else {
    description = fmt::format(
        "{}, deviations from {} to {}", counted(intervals.intervals, "interval"),
        signed_time_text(channel.smallest_ps()), signed_time_text(channel.largest_ps()));
    note("dense", draw_columns(svg, axes, number));
    note("far", draw_extreme(svg, axes, channel.largest_ps(), intervals.longest.time_ps));
    note("far", draw_extreme(svg, axes, channel.smallest_ps(), intervals.shortest.time_ps));
    note("overflow", overflow_varies && draw_overflow(svg, axes, number));
    draw_bars(svg, axes, kHistogram, axes.deviations[number], "interval");
  }
  if (number == axes.run.reference) {
    svg.text("none", kSkew.left, middle_px - 6, "start", 4, "reference");
  } else if (channel.skew.count != 0) {
    const std::string median = signed_time_text(channel.skew.median_ps);
    description += ", median skew " + median;
    svg.text("channel", kSkew.left, kTopPx - 8, "start", 0, median);
    draw_bars(svg, axes, kSkew, axes.skews[number], "event");
  }
  return svg.element("plot", kRowPx, fmt::format("Channel {}, {}", number, description));
}

void draw_count_axis(Svg& svg, const Axes& axes, const Panel& panel, const char* things) {
  svg.line("frame", panel.left, 0, panel.left + panel.width, 0);
  const double most = std::pow(10, std::floor(std::log10(axes.largest_count)));
  for (const double count : {1.0, most}) {
    const double x = panel.left + panel.width * axes.bar_share(count);
    svg.line("frame", x, 0, x, 5);
    svg.text("tick", x, 17, "middle", 0, short_text(count));
  }
  svg.text("axis things", panel.left, 34, "start", 0, things);
}

std::string draw_axes(const Axes& axes) {
  constexpr std::pair<double, const char*> kUnits[] = {
      {1e12, "s"}, {1e9, "ms"}, {1e6, "µs"}, {1e3, "ns"}, {1, "ps"}};
  const auto& [unit_ps, unit] = *std::find_if(
      std::begin(kUnits), std::end(kUnits), [&](const auto& u) { return axes.span_ps >= u.first; });
  const double end = axes.span_ps / unit_ps;
  const double step = round_above(end / 6);
  const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9)));
  Svg svg;
  svg.line("frame", kTime.left, 0, kTime.width, 0);
  for (int i = 0; step * i <= end * (1 + 1e-9); ++i) {
    const double x = kTime.width * std::min(1.0, step * i / end);
    svg.line("frame", x, 0, x, 5);
    svg.text("tick", x, 17, x > 0.97 * kTime.width ? "end" : "middle", 0,
             fixed_text(step * i, decimals));
  }
  svg.text("axis", kTime.width / 2, 34, "middle", 0,
           fmt::format("{} since the first timestamp", unit));
  draw_count_axis(svg, axes, kHistogram, "intervals");
  if (axes.run.reference) {
    draw_count_axis(svg, axes, kSkew, "events");
  }
  return svg.element("plot", kAxisPx, "Axes of time and of counts");
}

}  // namespace

Figure draw_figure(const Recording& recording) {
  const Axes axes(recording);
  Figure figure;
  std::vector<Mark> marks = lock_marks(recording, figure.left_out);
  const std::vector<Mark> wraps = wrap_marks(axes, figure.left_out);
  marks.insert(marks.end(), wraps.begin(), wraps.end());
  for (const Mark& mark : marks) {
    figure.kinds.insert(mark.kind);
  }
  IntervalSummary all;
  for (const ChannelRecording& channel : recording.channels) {
    all.add(channel.intervals);
  }
  const bool overflow_varies = all.with_overflow != 0 && all.with_overflow != all.intervals;
  figure.parts.push_back(draw_head(axes, marks));
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    if (recording.shows(channel)) {
      figure.parts.push_back(draw_row(axes, marks, channel, overflow_varies, figure.kinds));
    }
  }
  figure.parts.push_back(draw_axes(axes));
  return figure;
}

std::string draw_rate_errors(std::span<const RateMark> marks, double tolerance_ppm) {
  if (marks.empty() || !(tolerance_ppm > 0) || !std::isfinite(tolerance_ppm)) {
    return {};
  }
  constexpr double kReach = 1.6;  // of the tolerance
  constexpr double kHeight = 16;
  const auto x = [&](double ppm) { return 0.5 + 0.5 * ppm / (kReach * tolerance_ppm); };
  Svg svg;
  svg.rect("tolerance", x(-tolerance_ppm), 1, 1 / kReach, kHeight - 2, "within the tolerance");
  svg.line("zero", 0.5, 1, 0.5, kHeight - 1);
  std::vector<std::string> all;
  for (const RateMark& mark : marks) {
    all.push_back(fmt::format("channel {}: {} ppm", mark.channel, signed_text(mark.ppm, 6)));
    const char* const shape = x(mark.ppm) > 1   ? "M-9-5L0 0L-9 5z"
                              : x(mark.ppm) < 0 ? "M9-5L0 0L9 5z"
                                                : kCircle;
    svg.shape(mark.state, std::clamp(x(mark.ppm), 0.0, 1.0), kHeight / 2, shape, all.back());
  }
  return svg.element("rates", kHeight,
                     fmt::format("{}; tolerance ±{} ppm", fmt::join(all, ", "), tolerance_ppm));
}

}  // namespace orvo::inspection
