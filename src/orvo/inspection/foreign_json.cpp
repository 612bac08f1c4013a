#include "orvo/inspection/foreign_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvo::inspection {
using nlohmann::json;

json parse_foreign_json(std::string_view text) {
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
