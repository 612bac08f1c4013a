// What a stream file says about its own payload, and the JSON text that carries it.
// Plain values and functions without state: any thread may call them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "orvo/timing/time_tag.h"

namespace orvo::timing {

/// Record format of a payload.
enum class Format : std::int32_t { raw64 = 0, delta32 = 1, packed_delta = 2 };
/// Source of the events: the calibration source or the inputs.
enum class Mode : std::int32_t { internal = 0, external = 1 };
enum class Transport : std::int32_t { uart = 0, usb = 1, usb_async = 2 };

/// The name that a header has for it.
[[nodiscard]] const char* name_of(Format format);
[[nodiscard]] const char* name_of(Mode mode);
[[nodiscard]] const char* name_of(Transport transport);

// What the instrument and a header without these fields mean; a packed-delta field of 0 means them.
inline constexpr std::uint8_t kDefaultDeltaBits = 16;
inline constexpr std::uint16_t kDefaultQuantumPs = 8;

struct StreamFileHeader {
  Format stream_format = Format::packed_delta;
  Mode mode = Mode::external;
  Transport stream_transport = Transport::usb;
  std::uint8_t channel_mask = kAllChannels;  ///< bit c for channel c
  std::uint8_t tdl_index = 0;
  std::uint8_t delta_bits = kDefaultDeltaBits;  ///< width of one packed delta
  std::uint16_t quantum_ps =
      kDefaultQuantumPs;                ///< packed-delta ticks: the largest power of two in it
  std::string raw64_tag_format = "ps";  ///< "ps" or "raw_cf" (coarse and fine count)
  std::string created_utc;              ///< empty: filled from the clock when written
  std::string application;
  std::string device_product;
  std::string device_serial;
  std::string device_port;
};

namespace detail {

/// The header as one line of JSON. An empty `created_utc` becomes the present time, an empty
/// `raw64_tag_format` the one that fits the mode.
[[nodiscard]] std::string stream_header_to_json(StreamFileHeader header);

/// Reads any text: a field whose key is missing or unreadable keeps its default.
[[nodiscard]] StreamFileHeader stream_header_from_json(std::string_view text);

/// The same; `odd` becomes half a sentence about what is not as stream_header_to_json() writes it,
/// such as "is incomplete; taken: channel_mask=15", where that concerns decoding; else it is empty.
[[nodiscard]] StreamFileHeader stream_header_from_json(std::string_view text, std::string& odd);

}  // namespace detail
}  // namespace orvo::timing
