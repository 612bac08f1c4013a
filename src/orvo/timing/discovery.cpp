#include <algorithm>

#include "orvo/timing/device.h"
#include "orvo/timing/library_status.h"

namespace orvo::timing {
namespace {

/// Releases a discovery list, whatever happens while it is read.
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

}  // namespace orvo::timing
