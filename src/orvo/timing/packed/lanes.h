// The four channels as the fast loops see them, and where a batch stands.
#pragma once

#include <cstdint>

#include "orvo/timing/time_tag.h"

namespace orvo::timing::detail {

/// One channel. The bounds fold every question that the rules ask of an ordinary record into one
/// comparison; 0 leaves a channel's records to the rules.
struct PackedLane {
  std::uint64_t time_ps;
  std::uint64_t step_bound_ps;   ///< without overflow, a step below this is taken as it is
  std::uint64_t overflow_bound;  ///< a flagged payload below this only adds up
  std::uint64_t overflow;
  std::uint64_t full_step_bound_ps;  ///< the same as step_bound_ps, with overflow
  std::uint64_t tags;
};

/// The next record's first bit, the last record's end, the next tag.
struct PackedCursor {
  const std::uint8_t* data;
  std::uint64_t position;
  std::uint64_t stop;
  TimeTag* end;
};

}  // namespace orvo::timing::detail
