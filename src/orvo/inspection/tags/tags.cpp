#include "orvo/inspection/tags/tags.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "orvo/inspection/exit_status.h"
#include "orvo/inspection/printable_text.h"
#include "orvo/inspection/stream_input.h"
#include "orvo/inspection/tags/progress.h"
#include "orvo/timing/error.h"
#include "orvo/timing/stream_decoder.h"

namespace orvo::inspection {
namespace {

using timing::TimeTag;

void copy_tags(StreamInput& input, const TagsOptions& options, TagWriter& writer,
               ProgressBar& progress) {
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
    progress.update(input.reader.read_bytes());
  });
}

}  // namespace

int tags(const TagsOptions& options) {
  StreamInput input(options.file);
  if (!timing::StreamDecoder::decodes(input.reader.header())) {
    throw timing::Error(OT_ERR_FORMAT,
                        printable(options.file.string()) +
                            ": its header describes records that cannot be decoded; look at it "
                            "with 'ortime info'");
  }
  OutputFile output(options.output, {options.file});
  TagWriter writer(options.format, output);
  ProgressBar progress(input.file_bytes(), output.is_terminal());
  copy_tags(input, options, writer, progress);
  writer.finish();
  output.publish();
  return kExitSuccess;
}

}  // namespace orvo::inspection
