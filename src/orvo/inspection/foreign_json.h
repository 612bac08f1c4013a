// JSON as it is found in files: of any encoding and depth. No state; any thread may call.
#pragma once

#include <exception>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace orvo::inspection {

/// The document `text`, in memory of up to a hundred times its size. Each byte of a string becomes
/// one character, so that text in any encoding, or in none, can be read; bytes_of() gives the bytes
/// back. Throws nlohmann::json::exception.
[[nodiscard]] nlohmann::json parse_foreign_json(std::string_view text);

/// The bytes of a string of such a document. Characters that stand for no byte stay as they are.
[[nodiscard]] std::string bytes_of(std::string_view characters);

/// What `error` says, fit for a terminal, without the library's name and number for it.
[[nodiscard]] std::string words_of(const std::exception& error);

}  // namespace orvo::inspection
