#include "orvo/timing/json_text.h"

#include <algorithm>
#include <cctype>

namespace orvo::timing::detail {
namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

/// What follows the first ':' after the first "key"; nothing when there is no such place or the
/// text ends with it.
std::optional<std::string_view> find_value(std::string_view text, std::string_view key) {
  const std::string needle = '"' + std::string(key) + '"';
  const std::size_t found = text.find(needle);
  if (found == std::string_view::npos) {
    return std::nullopt;
  }
  const std::size_t colon = text.find(':', found + needle.size());
  if (colon == std::string_view::npos || colon + 1 == text.size()) {
    return std::nullopt;
  }
  return text.substr(colon + 1);
}

}  // namespace

std::string to_lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  });
  return text;
}

std::string json_escape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + 8);
  for (const char c : text) {
    switch (c) {
      case '\t':
        escaped += "\\t";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\r':
        escaped += "\\r";
        break;
      case '"':
        escaped += "\\\"";
        break;
      case '\\':
        escaped += "\\\\";
        break;
      default:
        escaped += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
    }
  }
  return escaped;
}

std::optional<std::string> json_find_string(std::string_view text, std::string_view key) {
  const std::optional<std::string_view> value = find_value(text, key);
  const std::size_t quote = value ? value->find('"') : std::string_view::npos;
  if (quote == std::string_view::npos) {
    return std::nullopt;
  }
  std::string result;
  for (std::size_t i = quote + 1; i < value->size(); ++i) {
    char c = (*value)[i];
    if (c == '"') {
      return result;
    }
    if (c == '\\') {
      if (++i == value->size()) {
        break;
      }
      c = (*value)[i];
      c = c == 'r' ? '\r' : c == 't' ? '\t' : c == 'n' ? '\n' : c;
    }
    result += c;
  }
  return std::nullopt;  // the text ends inside the value
}

std::optional<std::uint64_t> json_find_uint(std::string_view text, std::string_view key) {
  const std::optional<std::string_view> value = find_value(text, key);
  std::size_t i = value ? value->find_first_not_of(kWhiteSpace) : std::string_view::npos;
  if (i == std::string_view::npos || (*value)[i] < '0' || (*value)[i] > '9') {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  for (; i < value->size() && (*value)[i] >= '0' && (*value)[i] <= '9'; ++i) {
    number = number * 10 + static_cast<std::uint64_t>((*value)[i] - '0');
  }
  return number;
}

}  // namespace orvo::timing::detail
