// A stream file read for a command: what is wrong with it is told with its name.
// Threads: a StreamInput belongs to one thread. Errors: timing::Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>

#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

class StreamInput {
 public:
  /// Opens the file at `path`, which may be a pipe; `on_lock_event` as StreamFileReader's.
  explicit StreamInput(std::filesystem::path path, timing::LockListener on_lock_event = {});

  /// Hands all tags to `action`, some at a time in decoding order, reading `chunk_bytes` at a time.
  void read(std::uint64_t chunk_bytes,
            const std::function<void(std::span<const timing::TimeTag>)>& action);

  /// Neither is set for a pipe.
  [[nodiscard]] std::optional<std::uint64_t> file_bytes() const noexcept { return file_bytes_; }
  [[nodiscard]] std::optional<std::uint64_t> payload_bytes() const;

  timing::StreamFileReader reader;

 private:
  std::filesystem::path path_;
  std::optional<std::uint64_t> file_bytes_;
};

/// What the header tells of the settings; `packed_bits` is 0 where no record overflows.
[[nodiscard]] verification::EvaluationSettings settings_of(const timing::StreamFileHeader& header);

}  // namespace orvo::inspection
