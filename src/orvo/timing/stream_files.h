// Stream files: eight bytes of magic, a length, a JSON header, then the raw payload to the end.
//
//   orvo::timing::StreamFileReader reader;
//   reader.open("overflow_frequency_01.ortime");
//   reader.for_each_batch(1 << 20, [](std::span<const orvo::timing::TimeTag> tags) {
//     for (auto tag : tags) std::cout << unsigned{tag.channel} << ' ' << tag.time_ps << '\n';
//   });
//
// Threads: neither class locks; each object belongs to one thread at a time.
// Ownership: each object owns its file and closes it when destroyed. A reader that was moved from
// is not open. Errors: Error with OT_ERR_IO, OT_ERR_FORMAT (no stream file), OT_ERR_NOT_OPEN or
// OT_ERR_ARGUMENT; reading also Interrupted.
#pragma once

#include <array>
#include <cstdint>
#include <fstream>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "orvo/timing/error.h"
#include "orvo/timing/lock_event.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/time_tag.h"

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

  /// Appends `size` bytes to the payload. Up to a mebibyte is gathered and passes to the system as
  /// one write: with what no longer fits, with flush() or with close(), whichever comes first; the
  /// call that meets a failure reports it. A null `data` is allowed for no bytes. Before any open()
  /// and after close(), the first bytes fail with OT_ERR_IO, all later ones with OT_ERR_NOT_OPEN.
  void write(const std::uint8_t* data, std::uint64_t size);

  /// Writes out what is gathered.
  void flush();

  /// Writes out what is gathered and closes, also when that fails. Reports no failure twice. The
  /// destructor and open() close without a report.
  void close();

 private:
  void write_now(const std::uint8_t* data, std::uint64_t size);
  [[nodiscard]] bool end_file() noexcept;

  std::vector<std::uint8_t> gathered_;  // part of the payload that the system has not got yet
  std::ofstream file_;
};

/// Reads a stream file back as timestamps.
class StreamFileReader {
 public:
  StreamFileReader();
  ~StreamFileReader();
  StreamFileReader(StreamFileReader&& other) noexcept;
  StreamFileReader& operator=(StreamFileReader&& other) noexcept;

  /// Opens and checks `path` and stands at its first payload byte. An earlier file is closed
  /// first. After a failure the reader is not open.
  void open(const std::string& path);
  void close() noexcept;
  [[nodiscard]] bool is_open() const noexcept { return file_ != nullptr; }

  // Of the open file; defaults and 0 without one.

  [[nodiscard]] const StreamFileHeader& header() const noexcept;
  /// Half a sentence about what is odd about the header's text and what header() has instead, such
  /// as "is incomplete; taken: channel_mask=15"; empty for one as a StreamFileWriter writes it.
  [[nodiscard]] std::string header_remark() const;
  /// Bytes of the file before its payload.
  [[nodiscard]] std::uint64_t payload_start_bytes() const noexcept;
  /// Bytes of the file read so far, those before the payload included.
  [[nodiscard]] std::uint64_t read_bytes() const noexcept;
  /// Payload bytes read that wait to be decoded; those left at the end of the payload yield no tag.
  /// 0 where the header describes records that cannot be decoded.
  [[nodiscard]] std::uint64_t undecoded_bytes() const noexcept;

  /// The next timestamps in decoding order, at most `max_tags`; none at the end of the payload.
  /// Reads `chunk_bytes` (0 counts as 1) at a time.
  [[nodiscard]] std::vector<TimeTag> decode_next_tags(unsigned long max_tags,
                                                      unsigned long chunk_bytes);

  /// The same without a copy: valid until the next call on this reader, and empty only at the end
  /// of the payload or for no `max_tags`.
  [[nodiscard]] std::span<const TimeTag> next_tags(std::uint64_t max_tags,
                                                   std::uint64_t chunk_bytes);

  /// Calls `take` with one span of tags after the other, to the end of the payload.
  template <typename Take>
  void for_each_batch(std::uint64_t chunk_bytes, const Take& take) {
    constexpr std::uint64_t kTagsPerBatch = 65536;
    for (auto tags = next_tags(kTagsPerBatch, chunk_bytes); !tags.empty();
         tags = next_tags(kTagsPerBatch, chunk_bytes)) {
      take(tags);
    }
  }

  /// Asked before each chunk is read.
  InterruptionCheck interrupted;

  /// Called for each lock event, before the tags of its chunk are returned. It may not open, close
  /// or move this reader. An exception from it leaves the reading call, and the next call returns
  /// the chunk's tags; the chunk's remaining events are not reported.
  LockListener on_lock_event;

 private:
  struct File;

  [[nodiscard]] bool decode_chunk(std::uint64_t chunk_bytes);
  [[nodiscard]] std::uint64_t read_chunk(std::uint64_t chunk_bytes);

  std::unique_ptr<File> file_;  // null: not open
};

}  // namespace orvo::timing
