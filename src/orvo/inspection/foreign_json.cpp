#include "orvo/inspection/foreign_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvo::inspection {
namespace {

using nlohmann::json;

// An array in an array takes the most memory of all, for one byte of text.
constexpr int kMaxDepth = 16;

/// Whether no array or object of `text`, be it JSON or not, is nested more than kMaxDepth deep. The
/// parser's own callback could say so, but takes a time quadratic in the length of an array.
bool is_shallow(std::string_view text) {
  int depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size() && depth <= kMaxDepth; ++i) {
    const char c = text[i];
    if (c == '"') {
      in_string = !in_string;
    } else if (in_string) {
      i += c == '\\' ? 1 : 0;  // with what it escapes
    } else {
      depth += c == '[' || c == '{' ? 1 : c == ']' || c == '}' ? -1 : 0;
    }
  }
  return depth <= kMaxDepth;
}

}  // namespace

json parse_foreign_json(std::string_view text) {
  if (!is_shallow(text)) {
    throw json::other_error::create(501, "is nested too deeply", nullptr);
  }
  std::u16string characters;
  characters.reserve(text.size());
  for (const char c : text) {
    characters += static_cast<unsigned char>(c);
  }
  return json::parse(characters);
}

std::string bytes_of(std::string_view characters) {
  std::string bytes;
  for (std::size_t i = 0; i < characters.size(); ++i) {
    const auto lead = static_cast<unsigned char>(characters[i]);
    const bool high = lead == 0xC2 || lead == 0xC3;
    bytes += high ? static_cast<char>(lead << 6 | (characters[++i] & 0x3F)) : characters[i];
  }
  return bytes;
}

std::string words_of(const std::exception& error) {
  std::string words = error.what();
  words.erase(0, words.find("] ") + 2);
  const auto is_foreign = [](char c) { return static_cast<unsigned char>(c) >= 0x80; };
  std::replace_if(words.begin(), words.end(), is_foreign, '?');
  return words;
}

}  // namespace orvo::inspection
