// The history of a packed-delta stream's locks, in memory that does not grow with it.
// Threads: a LockHistory belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "orvo/timing/lock_event.h"
#include "orvo/timing/time_tag.h"

namespace orvo::inspection {

class LockHistory {
 public:
  static constexpr std::size_t kMaxEntries = 100;  // more than a person reads
  static constexpr std::size_t kKinds = 10;
  static_assert(static_cast<std::size_t>(timing::LockEvent::Kind::imbalanced) + 1 == kKinds);

  struct Entry {
    timing::LockEvent event;
    std::optional<std::int64_t> time_ps;  ///< of the last tag before it, where there is one
    std::optional<std::int64_t> next_ps;  ///< of the first tag behind it, likewise
  };

  /// An event, in order, ahead of the tags behind it.
  void add(const timing::LockEvent& event);
  /// The tags, in order, all of them.
  void pass(std::span<const timing::TimeTag> tags);

  /// The first kMaxEntries events.
  [[nodiscard]] std::span<const Entry> entries() const noexcept { return entries_; }
  [[nodiscard]] std::uint64_t count(timing::LockEvent::Kind kind) const;
  [[nodiscard]] std::uint64_t left_out() const;
  /// Locks dropped, for whatever reason.
  [[nodiscard]] std::uint64_t dropped() const;
  /// Payload passed over in the search for locks.
  [[nodiscard]] std::uint64_t skipped_bytes() const noexcept { return skipped_bytes_; }

 private:
  std::vector<Entry> entries_;
  std::uint64_t tags_ = 0;  // passed
  std::optional<std::int64_t> last_time_ps_;
  std::array<std::uint64_t, kKinds> counts_ = {};
  std::uint64_t skipped_bytes_ = 0;
};

/// "no_alignment".
[[nodiscard]] const char* name_of(timing::LockEvent::Kind kind);
/// What happened, in a sentence without its end.
[[nodiscard]] std::string words_for(const timing::LockEvent& event);

}  // namespace orvo::inspection
