// Reading unsigned numbers the way people write masks and widths. No state.
#pragma once

#include <string>

namespace orvo::verification {

/// std::stoul with base 0 (decimal, 0x hexadecimal, leading 0 octal), its exceptions and its
/// wrapping of negative numbers included; also takes 0b binary where the C library does not.
[[nodiscard]] unsigned long parse_unsigned(const std::string& text);

}  // namespace orvo::verification
