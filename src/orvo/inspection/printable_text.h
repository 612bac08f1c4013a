// Text of unknown origin made fit for a terminal. No state; any thread may call.
#pragma once

#include <string>
#include <string_view>

namespace orvo::inspection {

/// `text` with every byte that is neither printable ASCII nor part of a printable UTF-8 character
/// written as \xNN: a damaged file's strings must not command the terminal that shows them.
[[nodiscard]] std::string printable(std::string_view text);

}  // namespace orvo::inspection
