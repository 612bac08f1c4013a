#include "orvo/inspection/stream_input.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "orvo/inspection/foreign_json.h"
#include "orvo/inspection/progress.h"
#include "orvo/timing/error.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::inspection {
namespace {

using nlohmann::json;

constexpr std::size_t kMaxHeaderBytes = 1 << 20;  // the tool writes a few hundred

/// `error` with the name of the file instead of that of the reader.
timing::Error error_in(const std::string& name, const timing::Error& error) {
  return {error.status(), error.reason().starts_with("cannot open")
                              ? fmt::format("cannot open {}: {}", name, std::strerror(errno))
                              : fmt::format("{}: {}", name, error.reason())};
}

/// The header as JSON, an object without members where it is none; `odd` says what is odd about it.
json document_of(const std::string& text, std::string& odd) {
  json document;
  try {
    if (text.size() <= kMaxHeaderBytes) {
      document = parse_foreign_json(text);
    }
  } catch (const json::exception&) {
  }
  if (!document.is_object()) {
    odd = text.empty() ? "is empty" : "is no JSON object";
    return json::object();
  }
  if (document["file_type"] != "orvo_timing_raw_stream_capture") {
    odd = "is that of another kind of file";
  } else if (document["schema_version"] != 1) {
    odd = fmt::format("has schema_version {}, not 1", document["schema_version"].dump());
  }
  return document;
}

/// The members that say how to decode, where the header does not hold what was taken for them.
std::string taken_for(json document, const timing::StreamFileHeader& header) {
  const json members = {{"stream_format", name_of(header.stream_format)},
                        {"mode", name_of(header.mode)},
                        {"channel_mask", header.channel_mask},
                        {"delta_bits", header.delta_bits},
                        {"quantum_ps", header.quantum_ps}};
  if (json& packed = document["packed_delta_config"]; packed.is_object()) {
    document.update(json(packed));
  }
  std::string taken;
  for (const auto& [name, value] : members.items()) {
    if (document[name] != value) {
      taken +=
          fmt::format(" {}={}", name, value.is_string() ? value.get<std::string>() : value.dump());
    }
  }
  return taken;
}

}  // namespace

StreamInput::StreamInput(std::filesystem::path path, timing::LockListener on_lock_event)
    : name_(path == "-" ? "standard input" : fmt::format("{:?}", path.string())) {
  if (path == "-") {
    path = "/dev/stdin";
  }
  std::error_code error;  // what cannot be looked at cannot be opened either, which says why
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (std::filesystem::is_directory(status)) {
    throw timing::Error(OT_ERR_ARGUMENT, name_ + " is a directory: name a stream file in it");
  }
  if (std::filesystem::is_regular_file(status)) {
    file_bytes_ = std::filesystem::file_size(path, error);
  }
  reader.on_lock_event = std::move(on_lock_event);
  try {
    reader.open(path.string());
  } catch (const timing::Error& failure) {
    throw error_in(name_, failure);
  }
}

std::string StreamInput::warning() const {
  std::string odd;
  const std::string taken = taken_for(document_of(reader.header_text(), odd), reader.header());
  if (odd.empty() && taken.empty()) {
    return "";
  }
  return fmt::format("{}: its header {}; {}", name_, odd.empty() ? "is incomplete" : odd,
                     taken.empty() ? "read all the same" : "taken:" + taken);
}

void StreamInput::require_decodable() const {
  const timing::StreamFileHeader& header = reader.header();
  if (!timing::StreamDecoder::decodes(header)) {
    throw timing::Error(
        OT_ERR_FORMAT, fmt::format("{}: its header describes records that cannot be decoded: {} of "
                                   "{} bits",
                                   name_, name_of(header.stream_format), header.delta_bits));
  }
}

void StreamInput::read(std::uint64_t chunk_bytes,
                       const std::function<void(std::span<const timing::TimeTag>)>& action) {
  ProgressBar progress(file_bytes_, shows_progress);
  try {
    reader.for_each_batch(chunk_bytes, [&](std::span<const timing::TimeTag> tags) {
      action(tags);
      progress.update(reader.read_bytes());
    });
  } catch (const timing::Error& error) {
    throw error.operation().empty() ? error : error_in(name_, error);  // ours names its file
  }
}

std::optional<std::uint64_t> StreamInput::payload_bytes() const {
  return file_bytes_
             ? std::optional(*file_bytes_ - std::min(*file_bytes_, reader.payload_start_bytes()))
             : std::nullopt;
}

void print_warning(const StreamInput& input) {
  if (const std::string warning = input.warning(); !warning.empty()) {
    std::cerr << "ortime: " << warning << '\n';
  }
}

}  // namespace orvo::inspection
