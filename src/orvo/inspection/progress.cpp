#include "orvo/inspection/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iostream>

namespace orvo::inspection {
namespace {

constexpr double kBytesPerMegabyte = 1e6;
constexpr std::chrono::milliseconds kDrawInterval(100);
constexpr int kBarWidth = 24;
constexpr double kLongestShown_s = 360'000;  // 100 hours

}  // namespace

std::string progress_line(std::uint64_t done_bytes, std::optional<std::uint64_t> total_bytes,
                          double elapsed_s) {
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

ProgressBar::ProgressBar(std::optional<std::uint64_t> total_bytes, bool wanted)
    : total_bytes_(total_bytes), shown_(wanted && isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
  if (drawn_) {
    std::cerr << "\r\x1b[K" << std::flush;
  }
}

void ProgressBar::update(std::uint64_t done_bytes) {
  if (!shown_) {
    return;
  }
  const Clock::time_point now = Clock::now();
  if (now < next_draw_) {
    return;
  }
  next_draw_ = now + kDrawInterval;
  drawn_ = true;
  const double elapsed_s = std::chrono::duration<double>(now - start_).count();
  std::cerr << '\r' + progress_line(done_bytes, total_bytes_, elapsed_s) + "\x1b[K" << std::flush;
}

}  // namespace orvo::inspection
