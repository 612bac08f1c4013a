#include "orvo/timing/device/device.h"

#include <algorithm>
#include <utility>

#include "orvo/timing/device/fine_table_file.h"
#include "orvo/timing/device/library_status.h"
#include "orvo/timing/raw64.h"

namespace orvo::timing {
namespace {

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
    if (auto tables = detail::read_fine_table_file(detail::kFineTableFile)) {
      fine_lut = std::move(*tables);
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
