#include "orvo/inspection/stream_input.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iostream>
#include <new>
#include <string_view>
#include <utility>

#include "orvo/timing/error.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::inspection {

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
    if (file_bytes_ == 0U) {
      throw timing::Error(OT_ERR_FORMAT, name_ + " is no recording: it is empty");
    }
  }
  if (access(path.c_str(), R_OK) != 0) {  // the reader does not say why it cannot open
    throw timing::Error(OT_ERR_IO, fmt::format("cannot open {}: {}", name_, std::strerror(errno)));
  }
  reader.on_lock_event = std::move(on_lock_event);
  named([&] { reader.open(path.string()); });
}

/// What fails in `work` says in which file.
template <typename Work>
void StreamInput::named(const Work& work) const {
  try {
    work();
  } catch (const timing::Error& error) {
    const bool ours = error.operation().empty();  // names its file
    throw ours ? error : timing::Error(error.status(), name_, error.reason());
  } catch (const std::bad_alloc&) {
    throw timing::Error(OT_ERR_IO, name_ + ": not enough memory");
  }
}

std::string StreamInput::warning() const {
  const std::string remark = reader.header_remark();
  return remark.empty() ? "" : name_ + ": its header " + remark;
}

std::string StreamInput::problem() const {
  const timing::StreamFileHeader& header = reader.header();
  return timing::StreamDecoder::decodes(header)
             ? ""
             : fmt::format("{}: its header describes records that cannot be decoded: {} of {} bits",
                           name_, name_of(header.stream_format), header.delta_bits);
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
  const auto show = [&](std::span<const timing::TimeTag> tags) {
    action(tags);
    if (const Clock::time_point now = Clock::now(); now >= next_draw) {
      next_draw = now + std::chrono::milliseconds(100);
      draw(progress_line(reader.read_bytes(), file_bytes_,
                         std::chrono::duration<double>(now - start).count()));
    }
  };
  try {
    named([&] { reader.for_each_batch(chunk_bytes, show); });
  } catch (const std::exception&) {
    draw("");
    throw;
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
