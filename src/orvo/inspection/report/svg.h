// SVG that stretches to the width it is given while its texts and strokes keep their size.
// Horizontal places are shares of the width, vertical ones are pixels. What it is given to write is
// not escaped. Threads: an Svg belongs to one thread.
#pragma once

#include <fmt/format.h>

#include <cmath>
#include <string>
#include <string_view>

namespace orvo::inspection {

class Svg {
 public:
  /// The width of a layer's own coordinates.
  static constexpr double kLayerWidth = 1000;

  void line(std::string_view kind, double x1, double y1, double x2, double y2) {
    body_ += fmt::format("<line class=\"{}\" x1=\"{}%\" y1=\"{}\" x2=\"{}%\" y2=\"{}\"/>\n", kind,
                         brief(100 * x1), brief(y1), brief(100 * x2), brief(y2));
  }
  void rect(std::string_view kind, double x, double y, double width, double height,
            std::string_view hover) {
    body_ += fmt::format(
        "<rect class=\"{}\" x=\"{}%\" y=\"{}\" width=\"{}%\" height=\"{}\"><title>{}</title>"
        "</rect>\n",
        kind, brief(100 * x), brief(y), brief(100 * width), brief(height), hover);
  }
  void text(std::string_view kind, double x, double y, std::string_view anchor, double shift_px,
            std::string_view text) {
    body_ += fmt::format(
        "<text class=\"{}\" x=\"{}%\" y=\"{}\" dx=\"{}\" text-anchor=\"{}\">{}</text>\n", kind,
        brief(100 * x), brief(y), brief(shift_px), anchor, text);
  }
  /// A shape around its own (0, 0), not stretched.
  void shape(std::string_view kind, double x, double y, std::string_view path,
             std::string_view hover) {
    body_ += fmt::format(
        "<svg x=\"{}%\" y=\"{}\"><path class=\"{}\" d=\"{}\"><title>{}</title></path></svg>\n",
        brief(100 * x), brief(y), kind, path, hover);
  }
  /// A path whose x runs from 0 to kLayerWidth over `width`, and its y from 0 to `height`.
  void layer(std::string_view kind, double width, double y, double height, std::string_view path) {
    body_ += fmt::format(
        "<svg y=\"{1}\" width=\"{0}%\" height=\"{2}\" viewBox=\"0 0 {3:.0f} {2}\" "
        "preserveAspectRatio=\"none\"><path class=\"{4}\" d=\"{5}\"/></svg>\n",
        brief(100 * width), brief(y), brief(height), kLayerWidth, kind, path);
  }

  /// The whole; `description` is its text alternative.
  [[nodiscard]] std::string element(std::string_view kind, double height,
                                    std::string_view description) const {
    return fmt::format("<svg class=\"{}\" height=\"{}\" role=\"img\" aria-label=\"{}\">\n{}</svg>",
                       kind, brief(height), description, body_);
  }

 private:
  /// In the fewest characters that keep a hundredth.
  static std::string brief(double number) {
    return fmt::to_string(std::round(100 * number) / 100 + 0.0);  // which makes 0 of -0
  }

  std::string body_;
};

}  // namespace orvo::inspection
