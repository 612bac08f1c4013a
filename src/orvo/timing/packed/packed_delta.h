// Packed-delta records: the instrument's compact format. This class takes the alignment lock,
// judges each batch, and gives the lock up; the records themselves are decoded by records.h.
//
// Threads: a decoder belongs to the one thread that feeds it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "orvo/timing/packed/alignment.h"
#include "orvo/timing/packed/format.h"
#include "orvo/timing/packed/rules.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::timing {

namespace detail {
class RecordGroups;
struct PackedBatch;
}  // namespace detail

class PackedDeltaDecoder final : public StreamDecoder {
 public:
  /// The header's width of one delta is one that records can have.
  explicit PackedDeltaDecoder(const StreamFileHeader& header);
  ~PackedDeltaDecoder() override;

  /// Takes an alignment lock first where none is held. The batch ends where the lock is lost.
  std::span<const TimeTag> feed() override;

  [[nodiscard]] std::span<const LockEvent> lock_events() const noexcept override {
    return lock_events_;
  }

 private:
  [[nodiscard]] bool take_lock();
  void consume_packed_records(std::uint64_t count);
  void drop_packed_lock();
  /// Every lock taken, alignment rejected and lock dropped passes through here.
  void report(LockEvent event);
  void packed_debug_log(const LockEvent& event);

  StreamFileHeader header_;
  detail::PackedFormat format_;
  std::unique_ptr<detail::RecordGroups> groups_;
  detail::PackedState state_;
  bool locked_ = false;
  std::uint64_t bit_offset_ = 0;     // bits of the first byte that are consumed already, 0 to 7
  std::uint64_t returned_tags_ = 0;  // of all feeds
  std::vector<LockEvent> lock_events_;
  unsigned debug_lines_ = 0;
};

}  // namespace orvo::timing
