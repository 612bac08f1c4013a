// What all charts are drawn with: SVG that stretches to the width it is given while its texts and
// strokes keep their size. Horizontal places are shares of the width, vertical ones are pixels.
// Threads: a ChartSvg belongs to one thread.
#pragma once

#include <string>
#include <string_view>

namespace orvo::inspection {

class ChartSvg {
 public:
  /// The width of a stretched layer's own coordinates, see layer().
  static constexpr double kLayerWidth = 1000;

  void line(std::string_view classes, double x1, double y1_px, double x2, double y2_px);
  void rect(std::string_view classes, double x, double y_px, double width, double height_px,
            std::string_view hover = {});
  /// `anchor` is start, middle or end; `shift_px` moves the text to the right. Markup in `text` is
  /// kept: escape what is not a number.
  void text(std::string_view classes, double x, double y_px, std::string_view anchor,
            double shift_px, std::string_view text);
  /// A shape around its own (0, 0), not stretched.
  void shape(std::string_view classes, double x, double y_px, std::string_view path,
             std::string_view hover);
  /// A path whose x runs from 0 to kLayerWidth over the whole width.
  void layer(std::string_view classes, double y_px, double height_px, std::string_view path);

  /// The chart; `description` is its text alternative, not yet escaped.
  [[nodiscard]] std::string whole(std::string_view classes, double height_px,
                                  std::string_view description) const;

 private:
  std::string elements_;
};

}  // namespace orvo::inspection
