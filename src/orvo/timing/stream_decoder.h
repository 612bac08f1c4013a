// Payload bytes in, timestamps out: raw64, delta32 and packed-delta records.
//
// Threads: a decoder belongs to the one thread that feeds it.
// Ownership: owns its input and its output; fed tags are valid until the next feed.
// Errors: none. Damaged data is skipped or dropped by the rules of its format; only memory
// exhaustion throws.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "orvo/timing/input_buffer.h"
#include "orvo/timing/lock_event.h"
#include "orvo/timing/packed/format.h"
#include "orvo/timing/packed/state.h"
#include "orvo/timing/stream_header.h"
#include "orvo/timing/tag_buffer.h"
#include "orvo/timing/time_tag.h"

namespace orvo::timing {

namespace detail {
class RecordGroups;
}  // namespace detail

class StreamDecoder {
 public:
  explicit StreamDecoder(StreamFileHeader header);
  ~StreamDecoder();
  StreamDecoder(const StreamDecoder&) = delete;
  StreamDecoder& operator=(const StreamDecoder&) = delete;

  /// Whether the header describes records that can be decoded at all; without that, feeding
  /// consumes nothing and yields nothing.
  [[nodiscard]] bool decodes() const noexcept;

  /// Decodes what `input_buffer` holds by the header's format; an incomplete tail stays.
  std::span<const TimeTag> feed();

  std::span<const TimeTag> feed_raw64();
  std::span<const TimeTag> feed_delta32();
  /// Takes an alignment lock first where none is held. The batch ends at a lock's loss.
  std::span<const TimeTag> feed_packed_delta();

  /// Bytes received and not yet consumed: append here, then feed.
  detail::InputBuffer input_buffer;

  /// What happened to a packed-delta lock in the last feed, in order; valid until the next feed.
  [[nodiscard]] std::span<const LockEvent> lock_events() const noexcept { return lock_events_; }

  [[nodiscard]] bool locked() const noexcept { return locked_; }
  /// Bits of the first buffered byte that are consumed already, 0 to 7.
  [[nodiscard]] std::uint64_t bit_offset() const noexcept { return bit_offset_; }
  [[nodiscard]] const detail::PackedState& packed_state() const noexcept { return packed_; }

 private:
  struct RawChannel {
    std::uint64_t last = 0;
    std::uint64_t epoch = 0;  // added for wraps, in units of the record's own time
    bool seen = false;
  };

  enum class Delta32Sync { searching, time_low, time_high, running };

  struct Delta32State {
    Delta32Sync sync = Delta32Sync::searching;
    std::array<std::optional<std::int64_t>, 4> last_time_ps;
    std::uint32_t time_low = 0;
    std::optional<std::uint64_t> pending_base_ps;  // serves the next event
    std::uint64_t overflow = 0;
  };

  static constexpr std::uint64_t kMaxDebugLines = 200;

  std::size_t decode_raw64_ps(TimeTag* tags);
  std::size_t decode_raw64_coarse_fine(TimeTag* tags);

  [[nodiscard]] bool find_delta32_marker(std::size_t from);
  [[nodiscard]] bool handle_delta32_word(std::uint32_t word, TimeTag*& tags);
  [[nodiscard]] bool handle_delta32_running(std::uint32_t word, TimeTag*& tags);
  [[nodiscard]] bool handle_delta32_event(std::size_t channel, std::uint64_t payload,
                                          TimeTag*& tags);
  void start_delta32_base();

  [[nodiscard]] bool take_packed_lock();
  void consume_packed_records(std::uint64_t count);
  void drop_packed_lock();
  /// The one place that every lock taken, alignment rejected and lock dropped passes through.
  void report(LockEvent event);

  StreamFileHeader header_;
  detail::TagBuffer tags_;

  std::vector<std::int64_t> fine_table_;
  std::array<RawChannel, 4> raw_;
  Delta32State delta32_;

  detail::PackedFormat packed_format_;
  std::unique_ptr<detail::RecordGroups> packed_groups_;
  detail::PackedState packed_;
  bool locked_ = false;
  std::uint64_t bit_offset_ = 0;
  std::uint64_t packed_tags_ = 0;       // given out
  std::vector<LockEvent> lock_events_;  // of the last feed
  std::uint64_t debug_lines_ = 0;
};

}  // namespace orvo::timing
