// Sixteen packed-delta records at a time, where the processor has AVX-512 with VBMI.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "orvo/timing/packed/format.h"
#include "orvo/timing/time_tag.h"

namespace orvo::timing::detail {

// What the groups and the loop in records.cpp work on.

/// The four channels, one element each. An ordinary record is one to which no correction and no
/// limit of the rules applies; the bounds reduce that question to one comparison a record, and
/// leave the record to the rules where they are 0.
struct PackedLanes {
  using PerChannel = std::array<std::uint64_t, kChannels>;

  PerChannel time_ps;
  PerChannel overflow;
  PerChannel overflow_bound;      ///< a flagged payload below this only adds to `overflow`
  PerChannel step_bound_ps;       ///< steps below this are ordinary; 0 while there is overflow
  PerChannel full_step_bound_ps;  ///< the same for steps with overflow
  /// How far a tag moves the end of the tags: sizeof(TimeTag), or 0 while the channel has no time
  /// and its tags are overwritten by the next.
  PerChannel tag_bytes;
  PerChannel tags;  ///< decoded in this batch
};

/// The place in a batch.
struct PackedCursor {
  const std::uint8_t* data;
  std::uint64_t position;  ///< of the next record's first bit
  std::uint64_t stop;      ///< after the last record's last bit
  TimeTag* end;            ///< where the next tag goes
};

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
