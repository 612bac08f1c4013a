// Text in and out of a one-line JSON document: not a parser, but a search that takes any text; and
// the fold of case for names out of it.
// No state: any thread may call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvo::timing::detail {

/// `text` with its ASCII letters in lower case.
[[nodiscard]] std::string to_lower(std::string text);

/// `text` made safe inside a JSON string; control bytes without a short escape become '?'.
[[nodiscard]] std::string json_escape(std::string_view text);

/// The string after the first "key" in `text`, at any depth; nothing when there is none.
[[nodiscard]] std::optional<std::string> json_find_string(std::string_view text,
                                                          std::string_view key);

/// The decimal digits after the first "key" in `text`, modulo 2^64; nothing when there are none.
[[nodiscard]] std::optional<std::uint64_t> json_find_uint(std::string_view text,
                                                          std::string_view key);

}  // namespace orvo::timing::detail
