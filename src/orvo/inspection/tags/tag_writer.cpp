#include "orvo/inspection/tags/tag_writer.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using timing::TimeTag;

constexpr std::size_t kBlockBytes = 2 << 20;  // smaller, and waiting for each other takes time
constexpr std::size_t kMaxTagBytes = 64;      // the longest line of text has 47
constexpr std::size_t kNpyRecordBytes = 9;

char* put_csv(char* out, const TimeTag& tag) {
  return fmt::format_to(out, FMT_COMPILE("{},{}\n"), tag.channel, tag.time_ps);
}

char* put_jsonl(char* out, const TimeTag& tag) {
  return fmt::format_to(out, FMT_COMPILE("{{\"channel\":{},\"time_ps\":{}}}\n"), tag.channel,
                        tag.time_ps);
}

char* put_npy(char* out, const TimeTag& tag) {
  auto time_ps = static_cast<std::uint64_t>(tag.time_ps);
  if constexpr (std::endian::native == std::endian::big) {
    time_ps = __builtin_bswap64(time_ps);
  }
  *out = static_cast<char>(tag.channel);
  std::memcpy(out + 1, &time_ps, sizeof time_ps);
  return out + kNpyRecordBytes;
}

template <char* (*put)(char*, const TimeTag&)>
char* put_all(char* out, std::span<const TimeTag> tags) {
  for (const TimeTag& tag : tags) {
    out = put(out, tag);
  }
  return out;
}

char* put_tags(TagFormat format, char* out, std::span<const TimeTag> tags) {
  switch (format) {
    case TagFormat::csv:
      return put_all<put_csv>(out, tags);
    case TagFormat::jsonl:
      return put_all<put_jsonl>(out, tags);
    case TagFormat::npy:
      return put_all<put_npy>(out, tags);
  }
  return out;
}

/// Front of a NumPy file, version 1.0. Of the same size, a multiple of 64, for any number of tags,
/// so that it can be written again when the number is known.
std::string npy_header(std::uint64_t tags) {
  using namespace std::string_literals;
  return fmt::format(
      "{}{:<117}\n", "\x93NUMPY\x01\x00\x76\x00"s,
      fmt::format("{{'descr': [('channel', '|u1'), ('time_ps', '<i8')], 'fortran_order': False, "
                  "'shape': ({},), }}",
                  tags));
}

}  // namespace

TagWriter::TagWriter(TagFormat format, OutputFile& output)
    : format_(format), output_(output), block_(kBlockBytes), full_(kBlockBytes) {
  if (format == TagFormat::npy && !output.can_seek()) {
    throw timing::Error(OT_ERR_ARGUMENT,
                        output.name() +
                            " cannot be written as npy, whose front tells the number of "
                            "tags: name a regular file, or choose csv or jsonl");
  }
  const std::string front = format == TagFormat::npy   ? npy_header(0)
                            : format == TagFormat::csv ? "channel,time_ps\n"
                                                       : "";
  used_ = front.copy(block_.data(), front.size());
}

void TagWriter::write(std::span<const TimeTag> tags) {
  tags_ += tags.size();
  const std::size_t tag_bytes = format_ == TagFormat::npy ? kNpyRecordBytes : kMaxTagBytes;
  while (!tags.empty()) {
    if (block_.size() - used_ < tag_bytes) {
      next_block();
    }
    const std::size_t count = std::min(tags.size(), (block_.size() - used_) / tag_bytes);
    char* const end = put_tags(format_, block_.data() + used_, tags.first(count));
    used_ = static_cast<std::size_t>(end - block_.data());
    tags = tags.subspan(count);
  }
}

void TagWriter::next_block() {
  if (writing_.valid()) {
    writing_.get();
  }
  block_.swap(full_);
  writing_ = std::async(std::launch::async, [this, bytes = std::exchange(used_, 0)] {
    output_.write(std::span(full_).first(bytes));
  });
}

void TagWriter::finish() {
  next_block();
  writing_.get();
  if (format_ == TagFormat::npy) {
    output_.write_front(npy_header(tags_));
  }
}

}  // namespace orvo::inspection
