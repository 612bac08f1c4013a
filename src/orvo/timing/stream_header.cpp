#include "orvo/timing/stream_header.h"

#include <chrono>
#include <ctime>
#include <type_traits>
#include <utility>

#include "orvo/timing/json_text.h"

namespace orvo::timing {

const char* name_of(Format format) {
  switch (format) {
    case Format::delta32:
      return "delta32";
    case Format::packed_delta:
      return "packed_delta";
    case Format::raw64:
      break;
  }
  return "raw64";
}

const char* name_of(Mode mode) { return mode == Mode::internal ? "internal" : "external"; }

const char* name_of(Transport transport) {
  switch (transport) {
    case Transport::usb:
      return "usb";
    case Transport::usb_async:
      return "usb_async";
    case Transport::uart:
      break;
  }
  return "uart";
}

namespace detail {
namespace {

Format format_from(std::string_view name) {
  if (name == "delta32") {
    return Format::delta32;
  }
  if (name == "packed_delta" || name == "packeddelta") {
    return Format::packed_delta;
  }
  return Format::raw64;
}

Mode mode_from(std::string_view name) {
  return name == "internal" ? Mode::internal : Mode::external;
}

Transport transport_from(std::string_view name) {
  if (name == "usb") {
    return Transport::usb;
  }
  if (name == "usb_async" || name == "usb-async" || name == "usbasync") {
    return Transport::usb_async;
  }
  return Transport::uart;
}

/// For example 2026-03-14T09:26:53.058979Z.
std::string utc_now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
  const auto seconds = static_cast<std::time_t>(nanoseconds / 1'000'000'000);
  std::tm calendar{};
  gmtime_r(&seconds, &calendar);
  char text[32];
  std::string result(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &calendar));
  const std::string microseconds = std::to_string(nanoseconds % 1'000'000'000 / 1000);
  result += '.';
  if (microseconds.size() < 6) {
    result.append(6 - microseconds.size(), '0');
  }
  return result + microseconds + 'Z';
}

std::string fitting_raw64_tag_format(Mode mode) { return mode == Mode::internal ? "raw_cf" : "ps"; }

constexpr std::string_view kFileType = "orvo_timing_raw_stream_capture";
constexpr unsigned kSchemaVersion = 1;

void append_string_member(std::string& json, const char* key, std::string_view value) {
  json += '"';
  json += key;
  json += "\":\"";
  json += json_escape(value);
  json += "\",";
}

void append_number_member(std::string& json, const char* key, unsigned value, char end) {
  json += '"';
  json += key;
  json += "\":";
  json += std::to_string(value);
  json += end;
}

}  // namespace

std::string stream_header_to_json(StreamFileHeader header) {
  if (header.created_utc.empty()) {
    header.created_utc = utc_now();
  }
  if (header.raw64_tag_format.empty()) {
    header.raw64_tag_format = fitting_raw64_tag_format(header.mode);
  }
  std::string json = "{";
  append_string_member(json, "file_type", kFileType);
  append_number_member(json, "schema_version", kSchemaVersion, ',');
  append_string_member(json, "created_utc", header.created_utc);
  append_string_member(json, "application", header.application);
  append_string_member(json, "device_product", header.device_product);
  append_string_member(json, "device_serial", header.device_serial);
  append_string_member(json, "device_port", header.device_port);
  append_string_member(json, "stream_format", name_of(header.stream_format));
  append_string_member(json, "mode", name_of(header.mode));
  append_string_member(json, "stream_transport", name_of(header.stream_transport));
  append_string_member(json, "raw64_tag_format", header.raw64_tag_format);
  append_number_member(json, "channel_mask", unsigned{header.channel_mask} & kAllChannels, ',');
  append_number_member(json, "tdl_index", header.tdl_index, ',');
  json += R"("packed_delta_config":{)";
  append_number_member(json, "delta_bits", header.delta_bits, ',');
  append_number_member(json, "quantum_ps", header.quantum_ps, '}');
  json += '}';
  return json;
}

StreamFileHeader stream_header_from_json(std::string_view text) {
  std::string odd;
  return stream_header_from_json(text, odd);
}

StreamFileHeader stream_header_from_json(std::string_view text, std::string& odd) {
  StreamFileHeader header;
  std::string taken;  // what the text does not have so
  const auto note_unless = [&](bool there, const char* key, const std::string& value) {
    taken += there ? "" : std::string(" ") + key + '=' + value;
  };
  const auto read_name = [&](const char* key, auto& field, const auto& from_name) {
    const auto name = json_find_string(text, key);
    field = name ? from_name(to_lower(*name)) : field;
    note_unless(name == name_of(field), key, name_of(field));
  };
  read_name("stream_format", header.stream_format, format_from);
  read_name("mode", header.mode, mode_from);
  if (auto name = json_find_string(text, "stream_transport")) {
    header.stream_transport = transport_from(to_lower(std::move(*name)));
  }

  const auto read_text = [&](const char* key, std::string& field) {
    if (auto value = json_find_string(text, key)) {
      field = std::move(*value);
    }
  };
  read_text("raw64_tag_format", header.raw64_tag_format);
  read_text("created_utc", header.created_utc);
  read_text("application", header.application);
  read_text("device_product", header.device_product);
  read_text("device_serial", header.device_serial);
  read_text("device_port", header.device_port);

  const auto read_number = [&](const char* key, auto& field, std::uint64_t mask) {
    const auto value = json_find_uint(text, key);
    field = static_cast<std::remove_reference_t<decltype(field)>>(value.value_or(field) & mask);
    note_unless(value == field, key, std::to_string(field));
  };
  read_number("channel_mask", header.channel_mask, kAllChannels);
  read_number("delta_bits", header.delta_bits, UINT8_MAX);
  read_number("quantum_ps", header.quantum_ps, UINT16_MAX);
  if (const auto value = json_find_uint(text, "tdl_index")) {
    header.tdl_index = static_cast<std::uint8_t>(*value);
  }

  if (header.raw64_tag_format.empty()) {
    header.raw64_tag_format = fitting_raw64_tag_format(header.mode);
  }
  const bool foreign = json_find_string(text, "file_type") != kFileType ||
                       json_find_uint(text, "schema_version") != kSchemaVersion;
  odd = !taken.empty() ? "is incomplete; taken:" + taken
        : foreign      ? "is that of another kind or version of file; read all the same"
                       : "";
  return header;
}

}  // namespace detail
}  // namespace orvo::timing
