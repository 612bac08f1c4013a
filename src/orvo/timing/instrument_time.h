// The instrument's clock, as every record format sees it. All values in picoseconds; sums and
// differences of times are modulo 2^64.
#pragma once

#include <algorithm>
#include <cstdint>

namespace orvo::timing::detail {

inline constexpr std::uint64_t kCoarsePeriodPs = 3333;  ///< of the coarse clock, which has 32 bits
/// The instrument's picosecond time returns to 0 here.
inline constexpr std::uint64_t kWrapPs = kCoarsePeriodPs << 32;
static_assert(kWrapPs == 14'315'125'997'568);

/// Largest wrap-corrected step that is accepted without checking that the clock could have wrapped.
inline constexpr std::uint64_t kUncheckedStepPs = 10'000'000'000;
/// Largest step that the calibration source can plausibly make.
inline constexpr std::uint64_t kInternalStepLimitPs = 1'000'000'000'000;
/// Events of a channel may be reported this much out of order.
inline constexpr std::uint64_t kBackwardTolerancePs = 1'000'000;

/// The instrument's 41-bit counter of ticks of 2^`quantum_shift` ps. It restarts from 0 when the
/// clock wraps; the steps in a stream are differences of two counts, modulo the counter's period.
struct TickCounter {
  static constexpr unsigned kBits = 41;

  explicit constexpr TickCounter(unsigned quantum_shift)
      : period_ps(std::uint64_t{1} << (kBits + quantum_shift)),
        wrap_excess_ps((kWrapPs + period_ps - 1) / period_ps * period_ps - kWrapPs) {}

  /// The step that follows a channel's last time, less the excess if the clock wrapped during it.
  [[nodiscard]] constexpr std::uint64_t corrected_step(std::int64_t last_ps,
                                                       std::uint64_t step_ps) const {
    if (step_ps > wrap_excess_ps) {
      const std::uint64_t corrected_ps = step_ps - wrap_excess_ps;
      if (corrected_ps <= kUncheckedStepPs ||
          not_negative(last_ps) % kWrapPs + corrected_ps >= kWrapPs) {
        return corrected_ps;
      }
    }
    return step_ps;
  }

  /// A time that is known modulo the counter and the clock only, placed near the channel's last.
  [[nodiscard]] constexpr std::uint64_t placed_time(std::int64_t last_ps,
                                                    std::uint64_t time_ps) const {
    const std::uint64_t reference_ps = not_negative(last_ps);
    const std::uint64_t modulus_ps = std::min(period_ps, kWrapPs);
    time_ps += reference_ps - reference_ps % modulus_ps;
    if (time_ps + modulus_ps / 2 < reference_ps) {
      time_ps += modulus_ps;
    }
    // With a period above the clock's, the modulus has taken the wrap into account.
    return period_ps <= kWrapPs && reference_ps < time_ps
               ? reference_ps + corrected_step(last_ps, time_ps - reference_ps)
               : time_ps;
  }

  std::uint64_t period_ps;
  /// By how much a difference modulo `period_ps` is too large when the clock wrapped in between.
  std::uint64_t wrap_excess_ps;

 private:
  /// The last time of a channel as the origin of unsigned arithmetic: times before 0 count as 0.
  [[nodiscard]] static constexpr std::uint64_t not_negative(std::int64_t time_ps) {
    return time_ps > 0 ? static_cast<std::uint64_t>(time_ps) : 0;
  }
};
static_assert(TickCounter(0).wrap_excess_ps == 1'078'036'791'296);

}  // namespace orvo::timing::detail
