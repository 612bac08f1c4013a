// Storage for the tags of one batch: reused from batch to batch and never zeroed first.
// Threads: a TagBuffer belongs to one thread.
#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "orvo/timing/time_tag.h"

namespace orvo::timing::detail {

class TagBuffer {
 public:
  TagBuffer() = default;
  TagBuffer(const TagBuffer&) = delete;  // nor moved: the capacity would stay with the old one
  TagBuffer& operator=(const TagBuffer&) = delete;

  /// Room for `count` tags; what was there before is lost.
  [[nodiscard]] TimeTag* room_for(std::size_t count) {
    if (count > capacity_) {
      tags_ = std::make_unique_for_overwrite<TimeTag[]>(count);
      capacity_ = count;
    }
    return tags_.get();
  }

  /// The first `count` tags, valid until the next room_for().
  [[nodiscard]] std::span<const TimeTag> first(std::size_t count) const noexcept {
    return {tags_.get(), count};
  }

 private:
  std::unique_ptr<TimeTag[]> tags_;
  std::size_t capacity_ = 0;
};

}  // namespace orvo::timing::detail
