#include "orvo/timing/device/device.h"

#include <algorithm>
#include <fstream>
#include <new>
#include <optional>
#include <utility>

#include "orvo/timing/byte_order.h"
#include "orvo/timing/device/library_status.h"
#include "orvo/timing/raw64.h"

namespace orvo::timing {
namespace {

using FineTables =
    std::array<std::vector<std::int64_t>, kChannels>;  // one a channel, in picoseconds

constexpr const char* kFineTableFile = "fine_lut.bin";
constexpr std::uint32_t kMagic = 0x54'55'4C'54;  // "TLUT"
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kMaxEntries = 1U << 20;
constexpr std::size_t kEntryBytes = 8;
constexpr std::size_t kEntriesPerRead = 1U << 13;  // memory follows what the file really holds

template <typename Unsigned>
bool read_little_endian(std::istream& file, Unsigned& value) {
  std::array<char, sizeof(Unsigned)> bytes;
  if (!file.read(bytes.data(), bytes.size())) {
    return false;
  }
  value = detail::load_little_endian<Unsigned>(bytes.data());
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
      const char* const entry = block.data() + i * kEntryBytes;
      table.push_back(static_cast<std::int64_t>(detail::load_little_endian<std::uint64_t>(entry)));
    }
  }
  return true;
}

/// The tables of "fine_lut.bin" in the working directory; nothing when it is missing, damaged or
/// short. Layout, little-endian: "TLUT", version 1 (u32), then for each channel a count (u32, 1 to
/// 2^20) and as many entries (i64). What follows is ignored.
std::optional<FineTables> read_fine_table_file() {
  std::ifstream file(kFineTableFile, std::ios::binary);
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

/// Releases a discovery list, also where reading it throws.
struct ReleasedList {
  explicit ReleasedList(ot_discovery_list* owned) : list(owned) {}
  ~ReleasedList() { ot_discover_free(list); }
  ReleasedList(const ReleasedList&) = delete;
  ReleasedList& operator=(const ReleasedList&) = delete;

  ot_discovery_list* list;
};

template <std::size_t kWidth>
std::string text_of(const char (&field)[kWidth]) {
  return {field, std::find(field, field + kWidth, '\0')};
}

ot_device* open_handle(const std::string& port, int baud) {
  ot_device* handle = nullptr;
  const ot_status status = baud == kLibraryBaud ? ot_open_serial(&handle, port.c_str())
                                                : ot_open(&handle, port.c_str(), baud);
  if (status != OT_OK) {
    detail::throw_status(status, "open", nullptr);
  }
  return handle;
}

}  // namespace

Identity Identity::from_c(const ot_identity& record) {
  return {text_of(record.id_field_1), text_of(record.id_field_2), text_of(record.id_field_3),
          text_of(record.description)};
}

std::vector<DiscoveredDevice> Device::discover() {
  ot_discovery_list* list = nullptr;
  if (const ot_status status = ot_discover(&list); status != OT_OK) {
    detail::throw_status(status, "discover", nullptr);
  }
  const ReleasedList release{list};

  std::vector<DiscoveredDevice> devices;
  const std::uint64_t count = ot_discover_count(list);
  devices.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    const char* port = ot_discover_port(list, i);
    const ot_identity* identity = ot_discover_identity(list, i);
    devices.push_back({port != nullptr ? port : "",
                       identity != nullptr ? Identity::from_c(*identity) : Identity{}});
  }
  return devices;
}

Device::Device() { fine_lut.fill(detail::default_fine_table()); }

// Once Device() has completed, an exception from here runs the destructor, which closes the handle.
Device::Device(const std::string& port, int baud, FineTableSource fine_tables) : Device() {
  handle = open_handle(port, baud);
  owns_handle = true;
  if (fine_tables == FineTableSource::from_file) {
    try {
      if (auto tables = read_fine_table_file()) {
        fine_lut = std::move(*tables);
      }
    } catch (const std::bad_alloc&) {
      // Too large for the memory there is: the defaults stay.
    }
  }
}

Device::~Device() {
  if (handle != nullptr && owns_handle) {
    ot_close(handle);
  }
}

Device Device::open(std::string_view port, int baud) {
  return Device(std::string(port), baud, FineTableSource::defaults);
}

Device Device::open_first(int baud) {
  const std::vector<DiscoveredDevice> devices = discover();
  if (devices.empty()) {
    throw Error(OT_ERR_NOT_FOUND, "open_first", "no ORVO device found");
  }
  return Device(devices.front().port, baud, FineTableSource::from_file);
}

Identity Device::identify() {
  ot_identity record = {};
  detail::check(ot_identify(handle, &record), "identify", handle);
  return Identity::from_c(record);
}

std::uint32_t Device::set_calibration_freq(double freq_hz) {
  std::uint32_t divider = 0;
  detail::check(ot_set_calibration_freq(handle, freq_hz, &divider), "set_calibration_freq", handle);
  return divider;
}

}  // namespace orvo::timing
