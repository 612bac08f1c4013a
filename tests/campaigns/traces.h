// What a run of the tool leaves behind: the driver's ledger and the files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace orvo::campaigns {

/// The driver calls of a ledger, one letter each: Discover, List freed, Open, Identify, Frequency,
/// Mask, Packed-delta, interface X, Start, Read (a row of them: one), sTop, stop with flag Zero,
/// Close; small for one that failed, "!" for a misuse, "." for the orderly end.
[[nodiscard]] std::string calls_in(const std::string& ledger);

/// Regular expression of calls_in() for one capture from its frequency to its stop.
inline constexpr const char* kCapture = "(FMPXFSR?T)";

/// Bytes that each stream has delivered, and the streams that failed to start with 0.
[[nodiscard]] std::vector<std::uint64_t> streamed_bytes(const std::string& ledger);

/// The only directory in `root`, "" if there is none or are more.
[[nodiscard]] std::filesystem::path run_dir_in(const std::filesystem::path& root);

/// The payload of recording number `run` (from 1); "no recording" where that is no stream file.
[[nodiscard]] std::string payload(const std::filesystem::path& run_dir, std::size_t run);

/// What is wrong with the recordings when each is to hold what its stream delivered; "" if nothing.
[[nodiscard]] std::string wrong_recordings(const std::filesystem::path& run_dir,
                                           const std::string& ledger);

/// `text` with each `from` replaced by `to`.
[[nodiscard]] std::string with(std::string text, const std::string& from, const std::string& to);

/// The names in `directory`, sorted, with a space behind each.
[[nodiscard]] std::string names_in(const std::filesystem::path& directory);

}  // namespace orvo::campaigns
