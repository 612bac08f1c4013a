// Sixteen packed-delta records at a time, where the processor has AVX-512 with VBMI.
#pragma once

#include <memory>

#include "orvo/timing/packed/format.h"
#include "orvo/timing/packed/records.h"

namespace orvo::timing::detail {

/// Decodes groups of sixteen records for the loop in records.cpp. It changes the speed alone.
///
/// Channels fire in turn, so the channels and flags of sixteen records form one of a few patterns
/// again and again. What the records of a pattern need (which of them add to an overflow record,
/// how the steps of each channel sum up, where the tags go) is worked out once, as a plan of
/// permutations, and applied to every group with that pattern.
///
/// Threads: belongs to one thread. Errors: none; only memory exhaustion throws, in make().
class RecordGroups {
 public:
  /// For streams of `format`, which must outlive it; null where the processor or the format does
  /// not allow it, or where the environment variable ORVO_PACKED_KERNEL is "portable".
  [[nodiscard]] static std::unique_ptr<RecordGroups> make(const PackedFormat& format);

  virtual ~RecordGroups() = default;

  /// To be called before each batch.
  virtual void begin_batch() = 0;

  /// Decodes whole groups. Stops before the first that needs the rules, or that needs a new plan
  /// when too many were made. Reads up to 64 bytes from the first byte of a group on.
  virtual void take(PackedCursor& cursor, PackedLanes& lanes) = 0;
};

}  // namespace orvo::timing::detail
