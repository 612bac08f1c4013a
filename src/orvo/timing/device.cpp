#include "orvo/timing/device.h"

#include <utility>

#include "orvo/timing/error.h"
#include "orvo/timing/fine_table.h"
#include "orvo/timing/fine_table_file.h"
#include "orvo/timing/library_status.h"

namespace orvo::timing {
namespace {

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

Device::Device() { fine_lut.fill(detail::default_fine_table()); }

// Whatever throws once Device() has completed, the destructor runs and closes an opened handle.
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
    throw Error(OT_ERR_NOT_FOUND, "open_first: no ORVO device found");
  }
  return Device(devices.front().port, baud, FineTableSource::from_file);
}

}  // namespace orvo::timing
