#include "orvo/inspection/lock_history.h"

#include <fmt/format.h>

#include <numeric>

#include "orvo/inspection/text.h"

namespace orvo::inspection {
namespace {

using Kind = timing::LockEvent::Kind;

struct Words {
  const char* name;
  const char* sentence;  // {} is the channel
};

/// By kind.
constexpr Words kWords[LockHistory::kKinds] = {
    {"locked", "records begin here"},
    {"no_alignment", "no place found where records could begin"},
    {"rejected_alignment", "a place refused, because its channels differ too much"},
    {"inactive_channel", "place lost: a record of channel {}, which is outside the mask"},
    {"overflow_in_sync", "place lost: an overflow of channel {} interrupts a sync"},
    {"sync_channel_mismatch", "place lost: a record of channel {} interrupts a sync"},
    {"nonmonotonic_sync", "place lost: a sync sets channel {} back by more than 1 µs"},
    {"implausible_sync_delta", "place lost: a sync sets channel {} on by a second or more"},
    {"implausible_delta", "place lost: channel {} steps by more than a second"},
    {"imbalanced", "place lost: one channel has more than eight times the events of another"}};

}  // namespace

const char* name_of(Kind kind) { return kWords[static_cast<std::size_t>(kind)].name; }

std::string words_for(const timing::LockEvent& event) {
  std::string words = fmt::format(
      fmt::runtime(kWords[static_cast<std::size_t>(event.kind)].sentence), event.channel);
  if (event.drop_bytes != 0) {
    words += ", " + counted(event.drop_bytes, "byte") + " skipped before";
  }
  return words;
}

void LockHistory::add(const timing::LockEvent& event) {
  ++counts_[static_cast<std::size_t>(event.kind)];
  if (event.kind != Kind::rejected_alignment) {  // which skips nothing itself
    skipped_bytes_ += event.drop_bytes;
  }
  if (entries_.size() < kMaxEntries) {
    entries_.push_back({event, last_time_ps_, std::nullopt});
  }
}

void LockHistory::pass(std::span<const timing::TimeTag> tags) {
  for (Entry& entry : entries_) {
    // Modulo 2^64: far beyond the tags where the event is before them.
    const std::uint64_t behind = entry.event.tags_before - tags_;
    if (behind < tags.size()) {
      entry.next_ps = tags[behind].time_ps;
    }
    if (behind - 1 < tags.size()) {
      entry.time_ps = tags[behind - 1].time_ps;
    }
  }
  tags_ += tags.size();
  if (!tags.empty()) {
    last_time_ps_ = tags.back().time_ps;
  }
}

std::uint64_t LockHistory::count(Kind kind) const {
  return counts_[static_cast<std::size_t>(kind)];
}

std::uint64_t LockHistory::left_out() const {
  return std::accumulate(counts_.begin(), counts_.end(), std::uint64_t{0}) - entries_.size();
}

std::uint64_t LockHistory::dropped() const {
  std::uint64_t sum = 0;
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    sum += timing::drops_lock(static_cast<Kind>(kind)) ? counts_[kind] : 0;
  }
  return sum;
}

}  // namespace orvo::inspection
