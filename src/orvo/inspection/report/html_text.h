// Words and numbers as a page shows them. No state; any thread may call.
// Numbers are grouped by thin spaces and have a true minus; one that is no number is a dash.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orvo::inspection {

/// `text` of unknown origin made fit for HTML, in elements and in quoted attributes; bytes that no
/// one can read are written as \xNN.
[[nodiscard]] std::string html_escaped(std::string_view text);

[[nodiscard]] std::string grouped(std::uint64_t number);
[[nodiscard]] std::string grouped(std::int64_t number);
[[nodiscard]] std::string fixed_text(double number, int decimals);
/// With a plus before what is above 0.
[[nodiscard]] std::string signed_text(double number, int decimals);

/// To four digits in the unit that fits: "+99.99 µs", "−8 ps", "0 ps".
[[nodiscard]] std::string signed_time_text(double time_ps);
/// The same without plus.
[[nodiscard]] std::string time_text(double time_ps);
/// "100 kHz", "0.4 Hz".
[[nodiscard]] std::string hz_text(double rate_hz);
/// "12.3 %"; what is neither none nor all never looks like either.
[[nodiscard]] std::string percent_text(std::uint64_t part, std::uint64_t whole);
/// "1 event", "2 events".
[[nodiscard]] std::string counted(std::uint64_t number, std::string_view thing);

/// An item of a <dl>, and a <ul>; what they are given is HTML.
[[nodiscard]] std::string html_fact(std::string_view term, std::string_view description);
[[nodiscard]] std::string html_list(const std::vector<std::string>& items);

}  // namespace orvo::inspection
