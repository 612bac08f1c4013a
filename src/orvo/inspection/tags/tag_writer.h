// Timestamps as bytes of a format, in large blocks, one of which is written while the next fills.
// Threads: a TagWriter belongs to one thread; another, of its own, writes. Errors: those of its
// OutputFile, thrown by a later write() or finish().
#pragma once

#include <cstddef>
#include <cstdint>
#include <future>
#include <span>
#include <vector>

#include "orvo/inspection/output_file.h"
#include "orvo/timing/time_tag.h"

namespace orvo::inspection {

enum class TagFormat { csv, jsonl, npy };

class TagWriter {
 public:
  /// Writes to `output`, which must outlive this. `npy` needs an output that can seek.
  TagWriter(TagFormat format, OutputFile& output);

  void write(std::span<const timing::TimeTag> tags);

  /// Writes what is buffered and what depends on the number of tags; to be called once, last.
  void finish();

 private:
  void next_block();

  TagFormat format_;
  OutputFile& output_;
  std::uint64_t tags_ = 0;
  std::vector<char> block_;
  std::size_t used_ = 0;  // of the block
  std::vector<char> full_;
  std::future<void> writing_;  // last: uses the block that is full
};

}  // namespace orvo::inspection
