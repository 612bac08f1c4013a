#include "orvo/inspection/report/html_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "orvo/inspection/printable_text.h"

namespace orvo::inspection {
namespace {

constexpr std::string_view kDash = "–";
constexpr std::string_view kMinus = "−";
constexpr std::string_view kGroupSeparator = "\u202F";  // narrow, no line break
constexpr std::string_view kUnitSeparator = "\u00A0";
/// From here on an exponent is more readable.
constexpr double kLargestPlain = 1e15;

/// `digits` may go on behind a point.
std::string with_groups(std::string_view digits) {
  const std::size_t whole = std::min(digits.find('.'), digits.size());
  std::string result;
  for (std::size_t i = 0; i < whole; ++i) {
    if (i != 0 && (whole - i) % 3 == 0) {
      result += kGroupSeparator;
    }
    result += digits[i];
  }
  return result += digits.substr(whole);
}

/// "9.99" for four digits of 9.9899, "100" for those of 100.0001.
std::string four_digits(double number) {
  const double magnitude = std::abs(number);
  const int decimals = magnitude < 10 ? 3 : magnitude < 100 ? 2 : magnitude < 1000 ? 1 : 0;
  std::string text = fixed_text(number, decimals);
  if (decimals > 0 && std::isfinite(number)) {
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') {
      text.pop_back();
    }
  }
  return text;
}

}  // namespace

std::string html_escaped(std::string_view text) {
  std::string result;
  for (const char c : printable(text)) {
    switch (c) {
      // clang-format off
      case '&': result += "&amp;"; break;
      case '<': result += "&lt;"; break;
      case '>': result += "&gt;"; break;
      case '"': result += "&quot;"; break;
      case '\'': result += "&#39;"; break;
      default: result += c;
        // clang-format on
    }
  }
  return result;
}

std::string grouped(std::uint64_t number) { return with_groups(fmt::to_string(number)); }

std::string grouped(std::int64_t number) {
  const auto bits = static_cast<std::uint64_t>(number);
  return number < 0 ? std::string(kMinus) + grouped(0 - bits) : grouped(bits);
}

std::string fixed_text(double number, int decimals) {
  if (!std::isfinite(number)) {
    return std::string(kDash);
  }
  const double magnitude = std::abs(number);
  const std::string digits = magnitude < kLargestPlain ? fmt::format("{:.{}f}", magnitude, decimals)
                                                       : fmt::format("{:.3e}", magnitude);
  const bool zero = digits.find_first_of("123456789") == std::string::npos;
  return (number < 0 && !zero ? std::string(kMinus) : "") +
         (magnitude < kLargestPlain ? with_groups(digits) : digits);
}

std::string signed_text(double number, int decimals) {
  const std::string text = fixed_text(number, decimals);
  const bool above = number > 0 && text.find_first_of("123456789") != std::string::npos;
  return std::string(above ? "+" : "").append(text);
}

std::string time_text(double time_ps) {
  constexpr std::array<std::string_view, 5> kUnits = {"ps", "ns", "µs", "ms", "s"};
  std::size_t unit = 0;
  for (; unit + 1 < kUnits.size() && std::abs(time_ps) >= 999.95; ++unit) {
    time_ps /= 1000;
  }
  return four_digits(time_ps).append(kUnitSeparator).append(kUnits[unit]);
}

std::string signed_time_text(double time_ps) {
  return std::string(time_ps >= 0.0005 ? "+" : "").append(time_text(time_ps));
}

std::string hz_text(double rate_hz) {
  const bool mega = std::abs(rate_hz) >= 1e6;
  const bool kilo = !mega && std::abs(rate_hz) >= 1e3;
  const double scaled = mega ? rate_hz / 1e6 : kilo ? rate_hz / 1e3 : rate_hz;
  return four_digits(scaled).append(kUnitSeparator).append(mega ? "MHz" : kilo ? "kHz" : "Hz");
}

std::string percent_text(std::uint64_t part, std::uint64_t whole) {
  if (part == 0 || part >= whole) {
    return std::string(part == 0 ? "0" : "100").append(kUnitSeparator).append("%");
  }
  const double percent = 100 * static_cast<double>(part) / static_cast<double>(whole);
  const bool extreme = percent < 0.1 || percent > 99.9;
  const std::string text = !extreme      ? fmt::format("{:.1f}", percent)
                           : percent < 1 ? "below 0.1"
                                         : "above 99.9";
  return std::string(text).append(kUnitSeparator).append("%");
}

std::string counted(std::uint64_t number, std::string_view thing) {
  return grouped(number).append(kUnitSeparator).append(thing).append(number == 1 ? "" : "s");
}

std::string html_fact(std::string_view term, std::string_view description) {
  return fmt::format("<div><dt>{}</dt><dd>{}</dd></div>\n", term, description);
}

std::string html_list(const std::vector<std::string>& items) {
  return fmt::format("<ul>\n<li>{}</li>\n</ul>\n", fmt::join(items, "</li>\n<li>"));
}

}  // namespace orvo::inspection
