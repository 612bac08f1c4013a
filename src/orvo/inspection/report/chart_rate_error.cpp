#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "orvo/inspection/report/chart_scale.h"
#include "orvo/inspection/report/chart_svg.h"
#include "orvo/inspection/report/charts.h"
#include "orvo/inspection/report/html_text.h"

namespace orvo::inspection {
namespace {

using verification::ChannelResult;
using verification::EvaluationSettings;
using verification::kChannels;
using verification::RunResult;

constexpr std::size_t kRunsPerChart = 6;
constexpr double kRowPx = 20;
constexpr double kRunGapPx = 8;
constexpr double kTopPx = 6;
constexpr double kAxisPx = 44;
/// An axis that reaches further makes the tolerance too small to see.
constexpr double kMaxTolerances = 4;
constexpr double kMaxAxisPpm = 1e9;  // a thousandfold rate

constexpr const char* kDot = "M-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z";
constexpr const char* kCross = "M-5-5L5 5M-5 5L5-5";
constexpr const char* kArrowRight = "M-14-6L-1 0L-14 6z";
constexpr const char* kArrowLeft = "M14-6L1 0L14 6z";

bool measured(const ChannelResult& channel) { return channel.measured_hz > 0; }

/// The axis goes from minus to plus this.
double axis_ppm(std::span<const RunResult> runs, double tolerance_ppm) {
  double largest = 0;
  for (const RunResult& run : runs) {
    for (const ChannelResult& channel : run.channels) {
      largest = std::max(largest, measured(channel) ? std::abs(channel.ppm_error) : 0);
    }
  }
  if (!(tolerance_ppm > 0)) {
    return round_number_above(std::min(1.1 * largest, kMaxAxisPpm));
  }
  const double wanted =
      std::max(1.5 * tolerance_ppm, std::min(1.1 * largest, kMaxTolerances * tolerance_ppm));
  return round_number_above(std::min(wanted, kMaxAxisPpm));
}

class RateErrorChart {
 public:
  RateErrorChart(const EvaluationSettings& settings, double axis)
      : settings_(settings), axis_(axis) {}

  std::string draw(std::span<const RunResult> runs, std::size_t first_number) {
    const double bottom_px = kTopPx + static_cast<double>(runs.size()) *
                                          (kRowPx * static_cast<double>(kChannels) + kRunGapPx);
    draw_axis(bottom_px);
    std::string description;
    double y_px = kTopPx + (kRowPx + kRunGapPx) / 2;
    for (std::size_t i = 0; i < runs.size(); ++i, y_px += kRunGapPx) {
      for (std::size_t c = 0; c < kChannels; ++c, y_px += kRowPx) {
        draw_row(runs[i], c, y_px);
        description += fmt::format("Run {} at {}, channel {}: {}. ", first_number + i,
                                   hz_text(runs[i].requested_hz), c, value_of(runs[i].channels[c]));
      }
    }
    const std::string alternative =
        fmt::format("Rate errors on an axis from -{0} to {0} ppm, tolerance {1} ppm. {2}", axis_,
                    settings_.tolerance_ppm, description);
    return svg_.whole("rates", bottom_px + kAxisPx, alternative);
  }

 private:
  [[nodiscard]] double x(double ppm) const { return 0.5 + ppm / axis_ / 2; }

  static std::string value_of(const ChannelResult& channel) {
    if (!measured(channel)) {
      return "not measured";
    }
    const double magnitude = std::abs(channel.ppm_error);
    const int decimals = magnitude < 0.1 ? 6 : magnitude < 1'000 ? 2 : 0;
    return signed_text(channel.ppm_error, decimals) + "\u00A0ppm";
  }

  void draw_axis(double bottom_px) {
    const double half = std::clamp(settings_.tolerance_ppm, 0.0, axis_) / axis_ / 2;
    const double height_px = bottom_px - kTopPx;
    svg_.rect("band", 0.5 - half, kTopPx, 2 * half, height_px);
    for (const double edge : {0.5 - half, 0.5 + half}) {
      svg_.line("edge", edge, kTopPx, edge, bottom_px);
    }
    for (const double share : {-1.0, -0.5, 0.0, 0.5, 1.0}) {
      const double place = x(share * axis_);
      svg_.line(share == 0 ? "zero" : "grid", place, kTopPx, place, bottom_px + 4);
      svg_.text("tick", place, bottom_px + 18, "middle", 0,
                signed_text(share * axis_, axis_ < 10    ? 2
                                           : axis_ < 100 ? 1
                                                         : 0));
    }
    svg_.text("axis", 0.5, bottom_px + 37, "middle", 0, "rate error (ppm)");
  }

  void draw_row(const RunResult& run, std::size_t number, double y_px) {
    const ChannelResult& channel = run.channels[number];
    const bool counts = verification::channel_counts(settings_.channel_mask, number);
    const char* const state = !counts ? "mark uncounted" : channel.pass ? "mark good" : "mark bad";
    svg_.text("label", 0, y_px + 4, "end", -10,
              fmt::format("{} · ch\u00A0{}", hz_text(run.requested_hz), number));
    svg_.text(counts && !channel.pass ? "value fails" : "value", 1, y_px + 4, "start", 10,
              !counts ? "not judged" : value_of(channel) + (channel.pass ? "" : " ✗"));
    if (!measured(channel)) {
      svg_.line("grid", 0, y_px, 1, y_px);
      return;
    }
    const double ppm = channel.ppm_error;
    const std::string hover =
        fmt::format("{}, channel {}: {}", hz_text(run.requested_hz), number, value_of(channel));
    if (std::abs(ppm) > axis_) {
      svg_.line("stem", 0.5, y_px, ppm > 0 ? 1 : 0, y_px);
      svg_.shape(state, ppm > 0 ? 1 : 0, y_px, ppm > 0 ? kArrowRight : kArrowLeft, hover);
    } else {
      svg_.line("stem", 0.5, y_px, x(ppm), y_px);
      svg_.shape(state, x(ppm), y_px, channel.pass || !counts ? kDot : kCross, hover);
    }
  }

  const EvaluationSettings& settings_;
  double axis_;
  ChartSvg svg_;
};

}  // namespace

std::string rate_error_charts(std::span<const RunResult> runs, const EvaluationSettings& settings) {
  const double axis = axis_ppm(runs, settings.tolerance_ppm);
  std::string html;
  for (std::size_t first = 0; first < runs.size(); first += kRunsPerChart) {
    const auto part = runs.subspan(first, std::min(kRunsPerChart, runs.size() - first));
    html += "<figure>" + RateErrorChart(settings, axis).draw(part, first + 1) + "</figure>\n";
  }
  return html;
}

}  // namespace orvo::inspection
