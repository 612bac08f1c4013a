// Stream files: eight bytes of magic, a length, a JSON header, then the raw payload to the end.
//
// Threads: neither class locks; each object belongs to one thread at a time.
// Ownership: each object owns its file and closes it when destroyed.
// Errors: Error with OT_ERR_IO, OT_ERR_FORMAT (no stream file), OT_ERR_NOT_OPEN or OT_ERR_ARGUMENT;
// reading also Interrupted.
#pragma once

#include <array>
#include <cstdint>
#include <fstream>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "orvo/timing/stream_decoder.h"
#include "orvo/timing/stream_header.h"

namespace orvo::timing {

inline constexpr std::array<char, 8> kStreamFileMagic = {'O', 'R', 'T', 'I', 'M', 'E', '1', '\n'};

/// Writes one stream file from front to back.
class StreamFileWriter {
 public:
  StreamFileWriter() = default;
  ~StreamFileWriter();
  StreamFileWriter(const StreamFileWriter&) = delete;
  StreamFileWriter& operator=(const StreamFileWriter&) = delete;

  /// Creates or truncates `path` and writes everything before the payload. A file still open is
  /// closed first. After a failure the writer is not open.
  void open(const std::string& path, const StreamFileHeader& header);

  /// Appends `size` bytes to the payload. From 1,024 bytes on they pass to the system at once, as
  /// the standard library's stream does it: a failed write is thus reported by the write() that
  /// met it, where bytes collected in the buffer would fail unseen in close(). A null `data` is
  /// allowed for no bytes. Before any open() and behind close(), the first bytes fail with
  /// OT_ERR_IO, and only what follows as not open.
  void write(const std::uint8_t* data, std::uint64_t size);

  /// Writes out what is buffered and closes. A failure is not reported.
  void close() noexcept;

 private:
  std::vector<char> write_buffer_;  // outlives the stream that uses it
  std::ofstream file_;
  StreamFileHeader header_;
};

/// Reads a stream file back as timestamps.
class StreamFileReader {
 public:
  StreamFileReader() = default;
  StreamFileReader(const StreamFileReader&) = delete;
  StreamFileReader& operator=(const StreamFileReader&) = delete;

  /// Opens and checks `path` and stands at its first payload byte. Nothing of an earlier file is
  /// kept. After a failure the reader is not open.
  void open(const std::string& path);
  void close() noexcept;

  [[nodiscard]] const StreamFileHeader& header() const noexcept { return header_; }
  /// Bytes of the file in front of its payload.
  [[nodiscard]] std::uint64_t payload_start_bytes() const noexcept { return payload_start_bytes_; }

  /// The next timestamps in decoding order, at most `max_tags`; none at the end of the payload.
  /// Reads `chunk_bytes` (0 counts as 1) at a time.
  [[nodiscard]] std::vector<TimeTag> decode_next_tags(unsigned long max_tags,
                                                      unsigned long chunk_bytes);

  /// The same without a copy: valid until the next call on this reader, and empty only at the end
  /// of the payload or for no `max_tags`.
  [[nodiscard]] std::span<const TimeTag> next_tags(std::uint64_t max_tags,
                                                   std::uint64_t chunk_bytes);

  /// Asked before each chunk is read; reading ends with Interrupted when it says so.
  bool (*interrupted)() = nullptr;

  /// Called for each lock event, before the tags of its chunk are returned. It may not open or
  /// close this reader. An exception from it leaves the reading call, and the next call returns the
  /// chunk's tags; the chunk's remaining events are not reported.
  LockListener on_lock_event;

  /// Bytes of the file read so far, those before the payload included.
  [[nodiscard]] std::uint64_t read_bytes() const noexcept {
    return payload_start_bytes_ + payload_read_bytes_;
  }

  /// Payload bytes read that wait to be decoded: what the end of the payload leaves is lost. None
  /// where StreamDecoder::decodes() is false: all of them are passed over.
  [[nodiscard]] std::uint64_t undecoded_bytes() const noexcept {
    return decoder_ == nullptr ? 0 : decoder_->input_buffer.size();
  }

 private:
  void read_header();
  [[nodiscard]] bool decode_chunk(std::uint64_t chunk_bytes);
  [[nodiscard]] std::span<const TimeTag> take_pending(std::uint64_t max_tags) noexcept;

  std::ifstream file_;
  bool usable_ = false;
  StreamFileHeader header_;
  std::uint64_t payload_start_bytes_ = 0;
  std::uint64_t payload_read_bytes_ = 0;
  std::unique_ptr<StreamDecoder> decoder_;
  std::span<const TimeTag> pending_;  // in the decoder's storage
};

}  // namespace orvo::timing
