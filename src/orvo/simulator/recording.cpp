#include "orvo/simulator/recording.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace orvo::simulator {
namespace {

constexpr std::size_t kBlockBytes = 64 * 1024;
constexpr std::size_t kMaxHeaderBytes = 1 << 20;  // ours take some 500

/// What stands behind "key": in the header's text; it is written without spaces.
std::string_view value_of(std::string_view header, std::string_view key) {
  std::string quoted(1, '"');
  quoted.append(key).append("\":");
  const std::size_t at = header.find(quoted);
  return at == std::string_view::npos ? std::string_view{} : header.substr(at + quoted.size());
}

template <typename Number>
Number number_of(std::string_view header, std::string_view key) {
  const std::string_view text = value_of(header, key);
  Number number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc{} ? number : Number{0};
}

RecordingInfo parse_header(std::string_view header) {
  constexpr std::string_view kPacked = "\"packed_delta\"";
  RecordingInfo info;
  info.packed_delta = value_of(header, "stream_format").substr(0, kPacked.size()) == kPacked;
  info.delta_bits = number_of<std::uint8_t>(header, "delta_bits");
  info.quantum_ps = number_of<std::uint16_t>(header, "quantum_ps");
  return info;
}

}  // namespace

Recording::Recording(const std::string& path) : file_(path, std::ios::binary), block_(kBlockBytes) {
  char start[12] = {};
  if (!file_.read(start, sizeof start)) throw std::runtime_error("cannot read " + path);
  const std::string_view magic(start, 8);
  std::size_t length = 0;
  for (std::size_t i = 12; i-- > 8;) length = length << 8 | static_cast<std::uint8_t>(start[i]);
  if ((magic != "ORTIME1\n" && magic != "OTSTRM1\n") || length > kMaxHeaderBytes) {
    throw std::runtime_error(path + " is no stream file");
  }
  std::string header(length, '\0');
  if (!file_.read(header.data(), static_cast<std::streamsize>(length))) {
    throw std::runtime_error("cannot read " + path);
  }
  info_ = parse_header(header);
}

std::span<std::uint8_t> Recording::next(std::size_t wanted, std::uint64_t /*until_ps*/) {
  const std::size_t size = std::min(wanted, block_.size());
  file_.read(reinterpret_cast<char*>(block_.data()), static_cast<std::streamsize>(size));
  return std::span(block_).first(static_cast<std::size_t>(file_.gcount()));
}

}  // namespace orvo::simulator
