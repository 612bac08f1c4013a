#include "orvo/timing/device/fine_table_file.h"

#include <algorithm>
#include <fstream>
#include <new>

namespace orvo::timing::detail {
namespace {

constexpr std::uint32_t kMagic = 0x54'55'4C'54;  // "TLUT"
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kMaxEntries = 1U << 20;
constexpr std::size_t kEntryBytes = 8;
constexpr std::size_t kEntriesPerRead = 1U << 13;  // memory follows what the file really holds

template <typename Unsigned>
Unsigned little_endian(const char* bytes) {
  Unsigned value = 0;
  for (std::size_t i = sizeof(Unsigned); i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

template <typename Unsigned>
bool read_little_endian(std::istream& file, Unsigned& value) {
  std::array<char, sizeof(Unsigned)> bytes;
  if (!file.read(bytes.data(), bytes.size())) {
    return false;
  }
  value = little_endian<Unsigned>(bytes.data());
  return true;
}

bool read_table(std::istream& file, std::vector<std::int64_t>& table) {
  std::uint32_t count = 0;
  if (!read_little_endian(file, count) || count == 0 || count > kMaxEntries) {
    return false;
  }
  std::array<char, kEntriesPerRead * kEntryBytes> block;
  while (table.size() < count) {
    const std::size_t entries = std::min<std::size_t>(count - table.size(), kEntriesPerRead);
    if (!file.read(block.data(), static_cast<std::streamsize>(entries * kEntryBytes))) {
      return false;
    }
    for (std::size_t i = 0; i < entries; ++i) {
      table.push_back(
          static_cast<std::int64_t>(little_endian<std::uint64_t>(block.data() + i * kEntryBytes)));
    }
  }
  return true;
}

std::optional<FineTables> read_tables(const std::string& path) {
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

}  // namespace

std::optional<FineTables> read_fine_table_file(const std::string& path) {
  try {
    return read_tables(path);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace orvo::timing::detail
