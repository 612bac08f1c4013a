#include "orvo/inspection/stream_input.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "orvo/inspection/printable_text.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

constexpr std::uint64_t kTagsPerRead = 65'536;

timing::Error error_in(const std::filesystem::path& path, const timing::Error& error) {
  std::string_view what = error.what();
  for (const std::string_view prefix : {"StreamFileReader: ", "stream file: "}) {
    if (what.starts_with(prefix)) {
      what.remove_prefix(prefix.size());
    }
  }
  return {error.status(), fmt::format("{}: {}", printable(path.string()), what)};
}

}  // namespace

StreamInput::StreamInput(std::filesystem::path path, timing::LockListener on_lock_event)
    : path_(std::move(path)) {
  struct stat status = {};
  if (stat(path_.c_str(), &status) != 0 || access(path_.c_str(), R_OK) != 0) {
    throw timing::Error(
        OT_ERR_IO, fmt::format("cannot open {}: {} (stream files are the .ortime files of a run "
                               "directory)",
                               printable(path_.string()), std::strerror(errno)));
  }
  if (S_ISDIR(status.st_mode)) {
    throw timing::Error(OT_ERR_ARGUMENT, printable(path_.string()) +
                                             " is a directory: name a stream file (.ortime) in it");
  }
  if (S_ISREG(status.st_mode)) {
    file_bytes_ = static_cast<std::uint64_t>(status.st_size);
  }
  reader.on_lock_event = std::move(on_lock_event);
  try {
    reader.open(path_.string());
  } catch (const timing::Error& error) {
    throw error_in(path_, error);
  }
}

void StreamInput::read(std::uint64_t chunk_bytes,
                       const std::function<void(std::span<const timing::TimeTag>)>& action) {
  const auto next = [&] {
    try {
      return reader.next_tags(kTagsPerRead, chunk_bytes);
    } catch (const timing::Error& error) {
      throw error_in(path_, error);
    }
  };
  for (auto tags = next(); !tags.empty(); tags = next()) {
    action(tags);
  }
}

std::optional<std::uint64_t> StreamInput::payload_bytes() const {
  return file_bytes_
             ? std::optional(*file_bytes_ - std::min(*file_bytes_, reader.payload_start_bytes()))
             : std::nullopt;
}

verification::EvaluationSettings settings_of(const timing::StreamFileHeader& header) {
  verification::EvaluationSettings settings;  // whose defaults a header's 0 means
  settings.channel_mask = header.channel_mask;
  if (header.stream_format != timing::Format::packed_delta) {
    settings.packed_bits = 0;
    return settings;
  }
  if (header.delta_bits != 0) {
    settings.packed_bits = header.delta_bits;
  }
  if (header.quantum_ps != 0) {
    settings.packed_quantum_ps = header.quantum_ps;
  }
  return settings;
}

}  // namespace orvo::inspection
