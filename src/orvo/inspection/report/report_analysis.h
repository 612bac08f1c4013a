// What the recording of one run decodes to now, as a report shows it.
// Plain values; any thread may call analyse_run().
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "orvo/inspection/intervals.h"
#include "orvo/inspection/lock_history.h"
#include "orvo/timing/stream_header.h"
#include "orvo/verification/evaluation.h"

namespace orvo::inspection {

struct ChannelAnalysis {
  IntervalStatistics statistics;
  IntervalEnvelope envelope;
  IntervalHistogram histogram;
};

struct RunAnalysis {
  std::optional<timing::StreamFileHeader> header;  ///< where the file has one
  std::string problem;  ///< why nothing below is filled, for people; empty: it is

  verification::RunResult decoded;  ///< judged anew; exact rates from the reported divider
  IntervalScale scale;
  std::int64_t first_ps = 0;  ///< of all channels, like the next
  std::int64_t last_ps = 0;
  std::array<ChannelAnalysis, verification::kChannels> channels;

  LockHistory locks;
  std::uint64_t undecoded_bytes = 0;  ///< left over at the end
};

/// Reads the run's stream file twice, `chunk_bytes` at a time, in memory that does not grow with
/// it. `columns` are those of each envelope. What is wrong with the file is the `problem`.
[[nodiscard]] RunAnalysis analyse_run(const verification::RunResult& reported,
                                      const verification::EvaluationSettings& settings,
                                      std::uint64_t chunk_bytes, std::size_t columns);

}  // namespace orvo::inspection
