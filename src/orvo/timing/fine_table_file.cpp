#include "orvo/timing/fine_table_file.h"

#include <algorithm>
#include <fstream>

namespace orvo::timing::detail {
namespace {

constexpr std::uint32_t kMagic = 0x54'55'4C'54;  // "TLUT"
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kMaxEntries = 1U << 20;
constexpr std::uint32_t kEntriesPerRead = 1U << 13;  // memory follows what the file really holds

template <typename Unsigned>
bool read_little_endian(std::istream& file, Unsigned& value) {
  std::array<char, sizeof(Unsigned)> bytes;
  if (!file.read(bytes.data(), bytes.size())) {
    return false;
  }
  value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return true;
}

bool read_table(std::istream& file, std::vector<std::int64_t>& table) {
  std::uint32_t count = 0;
  if (!read_little_endian(file, count) || count == 0 || count > kMaxEntries) {
    return false;
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    if (i % kEntriesPerRead == 0) {
      table.reserve(i + std::min(count - i, kEntriesPerRead));
    }
    std::uint64_t entry = 0;
    if (!read_little_endian(file, entry)) {
      return false;
    }
    table.push_back(static_cast<std::int64_t>(entry));
  }
  return true;
}

}  // namespace

std::optional<FineTables> read_fine_table_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::uint32_t magic = 0;
  std::uint32_t version = 0;
  if (!file || !read_little_endian(file, magic) || !read_little_endian(file, version) ||
      magic != kMagic || version != kVersion) {
    return std::nullopt;
  }
  FineTables tables;
  for (std::vector<std::int64_t>& table : tables) {
    if (!read_table(file, table)) {
      return std::nullopt;
    }
  }
  return tables;
}

}  // namespace orvo::timing::detail
