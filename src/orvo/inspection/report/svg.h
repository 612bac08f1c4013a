// SVG that stretches to the width it is given while its texts and strokes keep their size.
// Horizontal places are shares of the width, vertical ones are pixels. What it is given to write is
// not escaped. Threads: an Svg belongs to one thread.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

namespace orvo::inspection {

class Svg {
 public:
  /// The width of a layer's own coordinates.
  static constexpr double kLayerWidth = 1000;

  void line(std::string_view kind, double x1, double y1, double x2, double y2) {
    body_ += fmt::format(R"(<line class="{}" x1="{:.5g}%" y1="{:.5g}" x2="{:.5g}%" y2="{:.5g}"/>)"
                         "\n",
                         kind, 100 * x1, y1, 100 * x2, y2);
  }
  void rect(std::string_view kind, double x, double y, double width, double height,
            std::string_view hover) {
    body_ +=
        fmt::format(R"(<rect class="{}" x="{:.5g}%" y="{:.5g}" width="{:.5g}%" height="{:.5g}">)"
                    "<title>{}</title></rect>\n",
                    kind, 100 * x, y, 100 * width, height, hover);
  }
  void text(std::string_view kind, double x, double y, std::string_view anchor, double shift_px,
            std::string_view text) {
    body_ += fmt::format(
        R"(<text class="{}" x="{:.5g}%" y="{:.5g}" dx="{:.5g}" text-anchor="{}">{}</text>)"
        "\n",
        kind, 100 * x, y, shift_px, anchor, text);
  }
  /// A shape around its own (0, 0), not stretched.
  void shape(std::string_view kind, double x, double y, std::string_view path,
             std::string_view hover) {
    body_ += fmt::format(
        R"(<svg x="{:.5g}%" y="{:.5g}"><path class="{}" d="{}"><title>{}</title></path></svg>)"
        "\n",
        100 * x, y, kind, path, hover);
  }
  /// A path whose x runs from 0 to kLayerWidth over `width`, and its y from 0 to `height`.
  void layer(std::string_view kind, double width, double y, double height, std::string_view path) {
    body_ += fmt::format(
        R"(<svg y="{1:.5g}" width="{0:.5g}%" height="{2:.5g}" viewBox="0 0 {3:.0f} {2:.5g}" )"
        R"(preserveAspectRatio="none"><path class="{4}" d="{5}"/></svg>)"
        "\n",
        100 * width, y, height, kLayerWidth, kind, path);
  }

  /// The whole; `description` is its text alternative.
  [[nodiscard]] std::string element(std::string_view kind, double height,
                                    std::string_view description) const {
    return fmt::format(R"(<svg class="{}" height="{:.5g}" role="img" aria-label="{}">)"
                       "\n{}</svg>",
                       kind, height, description, body_);
  }

 private:
  std::string body_;
};

}  // namespace orvo::inspection
