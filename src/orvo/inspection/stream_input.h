// A stream file read for a command: what is wrong with it is said with its name, and how far the
// reading is, on a terminal.
// Threads: a StreamInput belongs to one thread. Errors: timing::Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "orvo/timing/stream_files.h"

namespace orvo::inspection {

class StreamInput {
 public:
  /// Opens the file at `path`, which may be a pipe, or "-" for standard input; `on_lock_event` as
  /// StreamFileReader's.
  explicit StreamInput(std::filesystem::path path, timing::LockListener on_lock_event = {});

  /// What is odd about the header and what was taken instead, one line; empty for a header as the
  /// tool writes it.
  [[nodiscard]] std::string warning() const;
  /// Why the payload cannot be decoded, likewise; empty: it can.
  [[nodiscard]] std::string problem() const;

  /// Hands all tags to `action`, some at a time in decoding order, reading `chunk_bytes` at a time.
  void read(std::uint64_t chunk_bytes,
            const std::function<void(std::span<const timing::TimeTag>)>& action);

  /// Neither is set for a pipe.
  [[nodiscard]] std::optional<std::uint64_t> file_bytes() const noexcept { return file_bytes_; }
  [[nodiscard]] std::optional<std::uint64_t> payload_bytes() const;

  timing::StreamFileReader reader;
  bool shows_progress = true;  ///< where standard error is a terminal

 private:
  template <typename Work>
  void named(const Work& work) const;

  std::string name_;  // for messages
  std::optional<std::uint64_t> file_bytes_;
};

/// "[#####     ] 50 %  512 of 1024 MB, 800 MB/s, 0:01 left"; without a total "512 MB, 800 MB/s".
[[nodiscard]] std::string progress_line(std::uint64_t done_bytes,
                                        std::optional<std::uint64_t> total_bytes, double elapsed_s);

}  // namespace orvo::inspection
