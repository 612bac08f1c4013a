#include "orvo/inspection/stream_input.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "orvo/inspection/foreign_json.h"
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
  if (const std::string words = warning(); !words.empty()) {
    std::cerr << "ortime: " << words << '\n';
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
  using Clock = std::chrono::steady_clock;
  const bool shown = shows_progress && isatty(STDERR_FILENO) == 1;
  const auto draw = [&](const std::string& line) {
    if (shown) {
      std::cerr << '\r' + line + "\x1b[K" << std::flush;
    }
  };
  const Clock::time_point start = Clock::now();
  Clock::time_point next_draw = start;
  try {
    reader.for_each_batch(chunk_bytes, [&](std::span<const timing::TimeTag> tags) {
      action(tags);
      if (const Clock::time_point now = Clock::now(); now >= next_draw) {
        next_draw = now + std::chrono::milliseconds(100);
        draw(progress_line(reader.read_bytes(), file_bytes_,
                           std::chrono::duration<double>(now - start).count()));
      }
    });
  } catch (const timing::Error& error) {
    draw("");
    throw error.operation().empty() ? error : error_in(name_, error);  // ours names its file
  }
  draw("");
}

std::optional<std::uint64_t> StreamInput::payload_bytes() const {
  return file_bytes_
             ? std::optional(*file_bytes_ - std::min(*file_bytes_, reader.payload_start_bytes()))
             : std::nullopt;
}

std::string progress_line(std::uint64_t done_bytes, std::optional<std::uint64_t> total_bytes,
                          double elapsed_s) {
  constexpr double kBytesPerMegabyte = 1e6;
  constexpr int kBarWidth = 24;
  constexpr double kLongestShown_s = 360'000;  // 100 hours
  // The file may have grown since its size was taken.
  const std::uint64_t within = std::min(done_bytes, total_bytes.value_or(done_bytes));
  const double done_mb = static_cast<double>(within) / kBytesPerMegabyte;
  const double rate = elapsed_s > 0 ? done_mb / elapsed_s : 0;
  if (!total_bytes || *total_bytes == 0) {
    return fmt::format("{:.0f} MB, {:.0f} MB/s", done_mb, rate);
  }
  const double total_mb = static_cast<double>(*total_bytes) / kBytesPerMegabyte;
  const double part = done_mb / total_mb;
  const std::string bar(static_cast<std::size_t>(part * kBarWidth), '#');
  std::string line = fmt::format("[{:<{}}] {:.0f} %  {:.0f} of {:.0f} MB, {:.0f} MB/s", bar,
                                 kBarWidth, part * 100, done_mb, total_mb, rate);
  if (rate > 0) {
    const double left_s = std::clamp((total_mb - done_mb) / rate, 0.0, kLongestShown_s);
    const std::int64_t seconds = std::llround(left_s);
    line += fmt::format(", {}:{:02} left", seconds / 60, seconds % 60);
  }
  return line;
}

}  // namespace orvo::inspection
