#include "orvo/verification/number_text.h"

#include <algorithm>
#include <string_view>

namespace orvo::verification {

unsigned long parse_unsigned(const std::string& text) {
  std::string_view rest = text;
  rest.remove_prefix(std::min(rest.find_first_not_of(" \t\n\v\f\r"), rest.size()));
  const bool negative = rest.starts_with('-');
  if (negative || rest.starts_with('+')) {
    rest.remove_prefix(1);
  }
  if (!rest.starts_with("0b") && !rest.starts_with("0B")) {
    return std::stoul(text, nullptr, 0);
  }
  rest.remove_prefix(2);
  const std::string digits(rest.substr(0, rest.find_first_not_of("01")));
  if (digits.empty()) {
    return std::stoul(text, nullptr, 0);
  }
  const unsigned long magnitude = std::stoul(digits, nullptr, 2);
  return negative ? 0 - magnitude : magnitude;
}

}  // namespace orvo::verification
