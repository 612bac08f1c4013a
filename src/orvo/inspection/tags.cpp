#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/output_file.h"
#include "orvo/inspection/run_directory.h"
#include "orvo/inspection/stream_input.h"
#include "orvo/timing/error.h"

namespace orvo::inspection {
namespace {

using timing::TimeTag;

constexpr std::size_t kMaxLineBytes = 32;  // the longest has 25: channel 255, 20 digits
constexpr std::size_t kNpyRecordBytes = 9;
static_assert(kNpyRecordBytes <= kMaxLineBytes);

char* put_csv(char* out, const TimeTag& tag) {
  return fmt::format_to(out, FMT_COMPILE("{},{}\n"), tag.channel, tag.time_ps);
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

/// Writes each tag that is wanted as `put` puts it; returns their number.
template <typename Put>
std::uint64_t copy_tags(StreamInput& input, const TagsOptions& options, OutputFile& output,
                        const Put& put) {
  std::uint64_t count = 0;
  std::vector<TimeTag> kept;
  std::vector<char> bytes;
  input.read(options.chunk_bytes, [&](std::span<const TimeTag> tags) {
    if (!options.wanted.takes_all()) {
      kept.clear();
      std::copy_if(tags.begin(), tags.end(), std::back_inserter(kept), options.wanted);
      tags = kept;
    }
    bytes.resize(std::max(bytes.size(), tags.size() * kMaxLineBytes));
    char* end = bytes.data();
    for (const TimeTag& tag : tags) {
      end = put(end, tag);
    }
    output.write({bytes.data(), end});
    count += tags.size();
  });
  return count;
}

/// The stream file that is meant.
std::filesystem::path recording_of(const TagsOptions& options) {
  if (!names_run(options.path)) {
    return options.path;
  }
  const RunDirectory dir = opened(options.path);
  const std::size_t runs = dir.runs.size();
  if (options.run > runs) {
    throw timing::Error(OT_ERR_ARGUMENT, fmt::format("there is no recording {}: {:?} has {}",
                                                     options.run, dir.path.string(), runs));
  }
  if (options.run == 0 && runs > 1) {
    throw timing::Error(
        OT_ERR_ARGUMENT,
        fmt::format("{:?} holds {} recordings: choose one with --run N", dir.path.string(), runs));
  }
  const verification::RunResult& run = dir.runs[options.run == 0 ? 0 : options.run - 1];
  require_recording(dir, run);
  return run.stream_file;
}

}  // namespace

int run(const TagsOptions& options) {
  const std::filesystem::path recording = recording_of(options);
  StreamInput input(recording);
  say(input.warning());
  if (const std::string problem = input.problem(); !problem.empty()) {
    throw timing::Error(OT_ERR_FORMAT, problem);
  }
  OutputFile output(options.output, {recording == "-" ? "/dev/stdin" : recording});
  input.shows_progress = !output.is_terminal();
  if (options.format == TagFormat::csv) {
    output.write(std::string_view("channel,time_ps\n"));
    (void)copy_tags(input, options, output, put_csv);
  } else if (output.can_seek()) {
    output.write(npy_header(0));
    output.write_front(npy_header(copy_tags(input, options, output, put_npy)));
  } else {
    throw timing::Error(OT_ERR_ARGUMENT,
                        output.name() +
                            " cannot be written as npy, whose front holds the number of tags: "
                            "name a regular file, or choose csv");
  }
  output.publish();
  return kExitSuccess;
}

}  // namespace orvo::inspection
