// Sixteen packed-delta records at a time, where the processor has AVX-512 with VBMI.
//
// Threads: none of its own. Ownership: owns its plans, which are good for one stream format.
#pragma once

#include <memory>

#include "orvo/timing/packed/format.h"
#include "orvo/timing/packed/records.h"

namespace orvo::timing::detail {

/// The channels fire in turn, so that the channels and flags of sixteen records form one of a few
/// patterns again and again. What the records of a pattern need (which of them add to an overflow
/// record, how the steps of each channel sum up, where the tags go) is worked out once, as a plan
/// of permutations, and then applied to every group with that pattern.
class RecordGroups {
 public:
  /// For streams of `format`; null where processor or format do not allow it, or where the
  /// environment variable ORVO_PACKED_KERNEL is "portable".
  [[nodiscard]] static std::unique_ptr<RecordGroups> make(const PackedFormat& format);

  ~RecordGroups();
  RecordGroups(const RecordGroups&) = delete;
  RecordGroups& operator=(const RecordGroups&) = delete;

  /// To be called before a batch.
  void begin_batch();

  /// Takes groups while they hold nothing but what the lanes take without the rules; the first
  /// other one is left whole. Reads up to 64 bytes behind the first byte of a group.
  void take(PackedCursor& cursor, PackedLanes& lanes);

 private:
  struct Plans;

  explicit RecordGroups(const PackedFormat& format);

  std::unique_ptr<Plans> plans_;
};

}  // namespace orvo::timing::detail
