#include "orvo/inspection/tags.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <future>
#include <iostream>
#include <iterator>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "orvo/inspection/exit_status.h"
#include "orvo/inspection/output_file.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/inspection/stream_input.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using timing::TimeTag;

constexpr std::size_t kBlockBytes = 2 << 20;  // smaller, and waiting for each other takes time
constexpr std::size_t kMaxLineBytes = 32;     // the longest has 25: channel 255, 20 digits
constexpr std::size_t kNpyRecordBytes = 9;

char* put_csv(char* out, std::span<const TimeTag> tags) {
  for (const TimeTag& tag : tags) {
    out = fmt::format_to(out, FMT_COMPILE("{},{}\n"), tag.channel, tag.time_ps);
  }
  return out;
}

char* put_npy(char* out, std::span<const TimeTag> tags) {
  for (const TimeTag& tag : tags) {
    auto time_ps = static_cast<std::uint64_t>(tag.time_ps);
    if constexpr (std::endian::native == std::endian::big) {
      time_ps = __builtin_bswap64(time_ps);
    }
    *out = static_cast<char>(tag.channel);
    std::memcpy(out + 1, &time_ps, sizeof time_ps);
    out += kNpyRecordBytes;
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

/// Tags as bytes in large blocks, one of which is written while the next fills.
class TagWriter {
 public:
  /// Writes to `output`, which must outlive this. `npy` needs an output that can seek.
  TagWriter(TagFormat format, OutputFile& output)
      : format_(format), output_(output), block_(kBlockBytes), full_(kBlockBytes) {
    if (format == TagFormat::npy && !output.can_seek()) {
      throw timing::Error(OT_ERR_ARGUMENT,
                          output.name() +
                              " cannot be written as npy, whose front holds the "
                              "number of tags: name a regular file, or choose csv");
    }
    const std::string front = format == TagFormat::npy ? npy_header(0) : "channel,time_ps\n";
    used_ = front.copy(block_.data(), front.size());
  }

  void write(std::span<const TimeTag> tags) {
    tags_ += tags.size();
    const std::size_t tag_bytes = format_ == TagFormat::npy ? kNpyRecordBytes : kMaxLineBytes;
    while (!tags.empty()) {
      if (block_.size() - used_ < tag_bytes) {
        next_block();
      }
      const std::size_t count = std::min(tags.size(), (block_.size() - used_) / tag_bytes);
      char* const begin = block_.data() + used_;
      char* const end = format_ == TagFormat::npy ? put_npy(begin, tags.first(count))
                                                  : put_csv(begin, tags.first(count));
      used_ += static_cast<std::size_t>(end - begin);
      tags = tags.subspan(count);
    }
  }

  /// Writes what is buffered and what depends on the number of tags; to be called once, last.
  void finish() {
    next_block();
    writing_.get();
    if (format_ == TagFormat::npy) {
      output_.write_front(npy_header(tags_));
    }
  }

 private:
  void next_block() {
    if (writing_.valid()) {
      writing_.get();
    }
    block_.swap(full_);
    writing_ = std::async(std::launch::async, [this, bytes = std::exchange(used_, 0)] {
      output_.write(std::span(full_).first(bytes));
    });
  }

  TagFormat format_;
  OutputFile& output_;
  std::uint64_t tags_ = 0;
  std::vector<char> block_;
  std::size_t used_ = 0;  // of the block
  std::vector<char> full_;
  std::future<void> writing_;  // last: uses the block that is full
};

void copy_tags(StreamInput& input, const TagsOptions& options, TagWriter& writer) {
  const bool all = options.channel_mask == 0x0F && !options.from_ps && !options.to_ps;
  const auto wanted = [&](const TimeTag& tag) {
    return (options.channel_mask >> tag.channel & 1) != 0 &&
           (!options.from_ps || tag.time_ps >= *options.from_ps) &&
           (!options.to_ps || tag.time_ps < *options.to_ps);
  };
  std::vector<TimeTag> kept;
  input.read(options.chunk_bytes, [&](std::span<const TimeTag> tags) {
    if (!all) {
      kept.clear();
      std::copy_if(tags.begin(), tags.end(), std::back_inserter(kept), wanted);
    }
    writer.write(all ? tags : kept);
  });
}

/// The stream file that is meant.
std::filesystem::path recording_of(const TagsOptions& options) {
  if (!names_run(options.path)) {
    return options.path;
  }
  const RunDirectory dir = load_run(options.path);
  const std::size_t runs = dir.runs.size();
  if (options.run > runs || (options.run == 0 && runs > 1)) {
    throw timing::Error(OT_ERR_ARGUMENT,
                        fmt::format("{:?} holds {} recording{}: choose one with --run N",
                                    dir.path.string(), runs, runs == 1 ? "" : "s"));
  }
  const verification::RunResult& run = dir.runs[options.run == 0 ? 0 : options.run - 1];
  require_recording(dir, run);
  return run.stream_file;
}

}  // namespace

int tags(const TagsOptions& options) {
  const std::filesystem::path recording = recording_of(options);
  StreamInput input(recording);
  input.require_decodable();
  print_warning(input);
  OutputFile output(options.output, {recording == "-" ? "/dev/stdin" : recording});
  TagWriter writer(options.format, output);
  input.shows_progress = !output.is_terminal();
  copy_tags(input, options, writer);
  writer.finish();
  output.publish();
  return kExitSuccess;
}

}  // namespace orvo::inspection
