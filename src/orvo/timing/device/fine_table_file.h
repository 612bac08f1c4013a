// The instrument's own fine-time tables, from a file in the working directory.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvo::timing::detail {

using FineTables = std::array<std::vector<std::int64_t>, 4>;  // one a channel, in picoseconds

/// "fine_lut.bin", looked for in the working directory.
inline constexpr const char* kFineTableFile = "fine_lut.bin";

/// All four tables of the file at `path`; nothing when it is missing, damaged, short or too large
/// for the memory there is. Layout, little-endian: "TLUT", version 1 (u32), then for each channel
/// a count (u32, 1 to 2^20) and as many entries (i64). What follows is ignored.
[[nodiscard]] std::optional<FineTables> read_fine_table_file(const std::string& path);

}  // namespace orvo::timing::detail
