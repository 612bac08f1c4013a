#include "orvo/inspection/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <utility>

namespace orvo::inspection {
namespace {

constexpr std::string_view kMinus = "−";
constexpr std::string_view kGroupSeparator = "\u202F";  // narrow, no line break
constexpr std::string_view kUnitSeparator = "\u00A0";
/// From here on an exponent is more readable.
constexpr double kLargestPlain = 1e15;

/// `digits` may go on after a point.
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

bool shows_zero(std::string_view text) {
  return text.find_first_of("123456789") == std::string_view::npos;
}

/// To at most `digits` digits, in the first of `units`, each a thousand times the one before, that
/// keeps the number below a thousand.
std::string with_unit(double number, int digits, std::initializer_list<std::string_view> units) {
  const double limit = 1000 - 0.5 * std::pow(10, -std::max(0, digits - 3));  // is shown as 1 000
  const auto* unit = units.begin();
  for (; unit + 1 != units.end() && std::abs(number) >= limit; ++unit) {
    number /= 1000;
  }
  const double magnitude = std::abs(number);
  const int whole = magnitude < 10 ? 1 : magnitude < 100 ? 2 : 3;
  std::string text = fixed_text(number, std::max(0, digits - whole));
  if (text.find('.') != std::string::npos) {
    text.erase(text.find_last_not_of('0') + 1);
    text.erase(text.find_last_not_of('.') + 1);
  }
  return unit->empty() ? text : text.append(kUnitSeparator).append(*unit);
}

}  // namespace

std::string grouped(std::uint64_t number) { return with_groups(fmt::to_string(number)); }

std::string grouped(std::int64_t number) {
  const auto bits = static_cast<std::uint64_t>(number);
  return number < 0 ? std::string(kMinus) + grouped(0 - bits) : grouped(bits);
}

std::string fixed_text(double number, int decimals) {
  if (!std::isfinite(number)) {
    return "–";
  }
  const double magnitude = std::abs(number);
  const std::string digits = magnitude < kLargestPlain
                                 ? with_groups(fmt::format("{:.{}f}", magnitude, decimals))
                                 : fmt::format("{:.3e}", magnitude);
  return number < 0 && !shows_zero(digits) ? std::string(kMinus) + digits : digits;
}

std::string fixed_text(double number, int decimals, double limit) {
  constexpr int kMostDecimals = 15;
  const auto shown = [&] { return std::stod(fmt::format("{:.{}f}", number, decimals)); };
  while (decimals < kMostDecimals && number != limit &&
         (number < limit ? shown() >= limit : shown() <= limit)) {
    ++decimals;
  }
  return fixed_text(number, decimals);
}

std::string signed_text(double number, int decimals) {
  const std::string text = fixed_text(number, decimals);
  return number > 0 && !shows_zero(text) ? '+' + text : text;
}

std::string time_text(double time_ps, int digits) {
  return with_unit(time_ps, digits, {"ps", "ns", "µs", "ms", "s"});
}

std::string signed_time_text(double time_ps, int digits) {
  return std::string(time_ps >= 0.0005 ? "+" : "").append(time_text(time_ps, digits));
}

std::string hz_text(double rate_hz) { return with_unit(rate_hz, 4, {"Hz", "kHz", "MHz"}); }

std::string times_text(std::uint64_t number) {
  return number == 1 ? "once" : counted(number, "time");
}

std::string short_text(double number) {
  return with_unit(number, 3, {"", "k", "M", "G", "T", "P", "E"});
}

std::string counted(std::uint64_t number, std::string_view thing) {
  return grouped(number).append(kUnitSeparator).append(thing).append(number == 1 ? "" : "s");
}

std::string plain_text(std::string text) {
  for (const auto& [special, plain] :
       {std::pair(kMinus, "-"), std::pair(kGroupSeparator, " "), std::pair(kUnitSeparator, " ")}) {
    for (std::size_t at = 0; (at = text.find(special, at)) != std::string::npos;) {
      text.replace(at, special.size(), plain);
    }
  }
  return text;
}

}  // namespace orvo::inspection
