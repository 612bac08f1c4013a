// The instrument's clock, as every record format sees it. All values in picoseconds.
#pragma once

#include <cstdint>

namespace orvo::timing::detail {

inline constexpr std::uint64_t kCoarsePeriodPs = 3333;  ///< of the coarse clock, which has 32 bits
/// The instrument's picosecond time returns to 0 here.
inline constexpr std::uint64_t kWrapPs = kCoarsePeriodPs << 32;
static_assert(kWrapPs == 14'315'125'997'568);

inline constexpr unsigned kTickBits = 41;  ///< of a time that the instrument sends whole
/// By how much a difference modulo 2^41 ps is too large when the clock wrapped in between.
inline constexpr std::uint64_t kTickWrapExcessPs = 7 * (1ULL << kTickBits) - kWrapPs;
static_assert(kTickWrapExcessPs == 1'078'036'791'296);

/// Largest wrap-corrected step that is taken without asking whether the clock could have wrapped.
inline constexpr std::uint64_t kUncheckedStepPs = 10'000'000'000;
/// Largest step that the calibration source can plausibly make.
inline constexpr std::uint64_t kInternalStepLimitPs = 1'000'000'000'000;
/// Events of a channel may be reported this much out of order.
inline constexpr std::uint64_t kBackwardTolerancePs = 1'000'000;

/// The last time of a channel as the origin of unsigned arithmetic: times before 0 count as 0.
[[nodiscard]] constexpr std::uint64_t not_before_zero(std::int64_t time_ps) {
  return time_ps > 0 ? static_cast<std::uint64_t>(time_ps) : 0;
}

/// Whether a step from `last_ps` leads across the clock's wrap. The sum is modulo 2^64.
[[nodiscard]] constexpr bool crosses_wrap(std::uint64_t last_ps, std::uint64_t step_ps) {
  return last_ps % kWrapPs + step_ps >= kWrapPs;
}

}  // namespace orvo::timing::detail
