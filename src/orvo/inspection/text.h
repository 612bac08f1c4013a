// Numbers as a page shows them. No state; any thread may call.
// They are grouped by thin spaces, have a true minus and a unit that fits; what is no number is a
// dash.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvo::inspection {

[[nodiscard]] std::string grouped(std::uint64_t number);
[[nodiscard]] std::string grouped(std::int64_t number);
[[nodiscard]] std::string fixed_text(double number, int decimals);
/// With more decimals where these do not show on which side of `limit` it is.
[[nodiscard]] std::string fixed_text(double number, int decimals, double limit);
/// With a plus before what is above 0.
[[nodiscard]] std::string signed_text(double number, int decimals);

/// "99.99 µs", "−8 ps", "0 ps", to at most `digits` digits.
[[nodiscard]] std::string time_text(double time_ps, int digits = 4);
[[nodiscard]] std::string signed_time_text(double time_ps, int digits = 4);
/// "100 kHz", "0.4 Hz".
[[nodiscard]] std::string hz_text(double rate_hz);
/// "once", "2 times".
[[nodiscard]] std::string times_text(std::uint64_t number);
/// "10 k", to three digits.
[[nodiscard]] std::string short_text(double number);
/// "1 event", "2 events".
[[nodiscard]] std::string counted(std::uint64_t number, std::string_view thing);

/// For a terminal: with plain spaces and hyphens.
[[nodiscard]] std::string plain_text(std::string text);

}  // namespace orvo::inspection
