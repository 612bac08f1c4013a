#include "orvo/inspection/printable_text.h"

#include <cstddef>
#include <cstdint>

namespace orvo::inspection {
namespace {

/// Smallest character of each encoded length: fewer bytes would have done for what lies below. From
/// U+00A0 on, because the two-byte characters before it are control characters.
constexpr std::uint32_t kSmallest[] = {0, 0x20, 0xA0, 0x800, 0x10000};

std::size_t encoded_length(unsigned char lead) {
  return lead < 0x80 ? 1 : lead >> 5 == 0x6 ? 2 : lead >> 4 == 0xE ? 3 : lead >> 3 == 0x1E ? 4 : 0;
}

/// Bytes of the printable character that `text` begins with; 0 where there is none.
std::size_t printable_length(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  const std::size_t length = encoded_length(lead);
  if (length == 0 || length > text.size()) {
    return 0;
  }
  std::uint32_t character = length == 1 ? lead : lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if (next >> 6 != 0x2) {
      return 0;
    }
    character = character << 6 | (next & 0x3FU);
  }
  const bool surrogate = character >= 0xD800 && character < 0xE000;
  const bool valid = character >= kSmallest[length] && character <= 0x10FFFF && !surrogate;
  return valid && character != 0x7F ? length : 0;
}

}  // namespace

std::string printable(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string result;
  while (!text.empty()) {
    std::size_t length = printable_length(text);
    if (length == 0) {
      const auto byte = static_cast<unsigned char>(text.front());
      result += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xF]};
      length = 1;
    } else {
      result += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return result;
}

}  // namespace orvo::inspection
