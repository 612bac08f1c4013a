#include "orvo/inspection/report/chart_svg.h"

#include <fmt/format.h>

#include <cmath>

#include "orvo/inspection/report/html_text.h"

namespace orvo::inspection {
namespace {

/// A coordinate in the fewest characters that keep a hundredth.
std::string place(double number) {
  return fmt::to_string(std::round(100 * number) / 100 + 0.0);  // which makes 0 of -0
}

std::string percent(double share) { return place(100 * share) + '%'; }

std::string titled(std::string_view hover) {
  return hover.empty() ? "" : fmt::format("<title>{}</title>", html_escaped(hover));
}

}  // namespace

void ChartSvg::line(std::string_view classes, double x1, double y1_px, double x2, double y2_px) {
  elements_ += fmt::format("<line class=\"{}\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>\n",
                           classes, percent(x1), place(y1_px), percent(x2), place(y2_px));
}

void ChartSvg::rect(std::string_view classes, double x, double y_px, double width, double height_px,
                    std::string_view hover) {
  elements_ += fmt::format(
      "<rect class=\"{}\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\">{}</rect>\n", classes,
      percent(x), place(y_px), percent(width), place(height_px), titled(hover));
}

void ChartSvg::text(std::string_view classes, double x, double y_px, std::string_view anchor,
                    double shift_px, std::string_view text) {
  elements_ +=
      fmt::format("<text class=\"{}\" x=\"{}\" y=\"{}\" dx=\"{}\" text-anchor=\"{}\">{}</text>\n",
                  classes, percent(x), place(y_px), place(shift_px), anchor, text);
}

void ChartSvg::shape(std::string_view classes, double x, double y_px, std::string_view path,
                     std::string_view hover) {
  elements_ += fmt::format("<svg x=\"{}\" y=\"{}\"><path class=\"{}\" d=\"{}\">{}</path></svg>\n",
                           percent(x), place(y_px), classes, path, titled(hover));
}

void ChartSvg::layer(std::string_view classes, double y_px, double height_px,
                     std::string_view path) {
  elements_ += fmt::format(
      "<svg y=\"{0}\" width=\"100%\" height=\"{1}\" viewBox=\"0 0 {2:.0f} {1}\" "
      "preserveAspectRatio=\"none\"><path class=\"{3}\" d=\"{4}\"/></svg>\n",
      place(y_px), place(height_px), kLayerWidth, classes, path);
}

std::string ChartSvg::whole(std::string_view classes, double height_px,
                            std::string_view description) const {
  return fmt::format(
      "<svg class=\"plot {}\" height=\"{}\" role=\"img\" aria-label=\"{}\">\n{}</svg>\n", classes,
      place(height_px), html_escaped(description), elements_);
}

}  // namespace orvo::inspection
