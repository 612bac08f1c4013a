#include "support/expected_reports.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "orvo/timing/stream_files.h"
#include "orvo/verification/run_result.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

using verification::ChannelResult;
using verification::Config;
using verification::RunResult;

__attribute__((format(printf, 2, 3))) void add(std::string& text, const char* format, ...) {
  std::array<char, 1000> line;
  std::va_list values;
  va_start(values, format);
  std::vsnprintf(line.data(), line.size(), format, values);
  va_end(values);
  text += line.data();
}

const char* word(bool value) { return value ? "true" : "false"; }

bool counts(const Config& config, std::size_t channel) {
  return config.channel_mask == 0 || (config.channel_mask >> channel & 1) != 0;
}

void judge(ChannelResult& channel, double expected_hz, const Config& config) {
  if (channel.count < 2) channel.first_ps = channel.last_ps = 0;
  if (channel.last_ps > channel.first_ps) {
    channel.measured_hz = static_cast<double>(channel.count - 1) * 1e12 /
                          static_cast<double>(channel.last_ps - channel.first_ps);
    channel.ppm_error = (channel.measured_hz - expected_hz) / expected_hz * 1e6;
  }
  channel.pass = channel.count >= config.min_tags_per_channel &&
                 std::abs(channel.ppm_error) <= config.tolerance_ppm;
}

void read_stream(RunResult& run) {
  const std::string bytes = read_file(run.stream_file.string());
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes.at(i)); };
  run.payload_bytes = bytes.size() - 12 - (byte(8) + 256U * byte(9));  // magic, length, header
  timing::StreamFileReader reader;
  reader.open(run.stream_file.string());
  for (const timing::TimeTag& tag : reader.decode_next_tags(~0UL, 1 << 20)) {
    ChannelResult& channel = run.channels.at(tag.channel);
    const bool first = channel.count++ == 0;
    channel.first_ps = first ? tag.time_ps : std::min(channel.first_ps, tag.time_ps);
    channel.last_ps = first ? tag.time_ps : std::max(channel.last_ps, tag.time_ps);
    ++run.decoded_tags;
  }
}

RunResult measure(const Config& config, std::size_t index, const std::filesystem::path& run_dir) {
  RunResult run;
  run.requested_hz = config.frequencies_hz[index];
  run.divider = static_cast<std::uint32_t>(std::lround(712500000.0 / 23 / run.requested_hz));
  run.effective_hz = 712500000.0 / 23 / run.divider;
  run.expected_decoded_hz = run.effective_hz / 0.9999;
  const double largest_ps = (std::exp2(config.packed_bits) - 1) * config.packed_quantum_ps;
  run.overflow_required = config.packed_bits < 31 && 1e12 / run.expected_decoded_hz > largest_ps;
  std::string name;
  add(name, "overflow_frequency_%02zu.ortime", index + 1);
  run.stream_file = run_dir / name;
  read_stream(run);
  run.pass = true;
  for (std::size_t c = 0; c < run.channels.size(); ++c) {
    judge(run.channels[c], run.expected_decoded_hz, config);
    if (counts(config, c)) run.pass = run.pass && run.channels[c].pass;
  }
  return run;
}

void add_run(ExpectedReports& reports, const RunResult& run, const Config& config) {
  const char* const overflow = word(run.overflow_required);
  add(reports.json,
      "    {\n      \"requested_hz\":%.3f,\n      \"effective_hz\":%.3f,\n"
      "      \"expected_decoded_hz\":%.3f,\n      \"divider\":%u,\n"
      "      \"overflow_required\":%s,\n      \"pass\":%s,\n      \"stream_file\":\"%s\",\n"
      "      \"payload_bytes\":%lu,\n      \"decoded_tags\":%lu,\n      \"channels\":[\n",
      run.requested_hz, run.effective_hz, run.expected_decoded_hz, run.divider, overflow,
      word(run.pass), run.stream_file.c_str(), run.payload_bytes, run.decoded_tags);
  add(reports.summary,
      "run requested_hz=%.3f effective_hz=%.3f expected_decoded_hz=%.3f divider=%u"
      " overflow_required=%s decoded_tags=%lu pass=%s\n",
      run.requested_hz, run.effective_hz, run.expected_decoded_hz, run.divider, overflow,
      run.decoded_tags, word(run.pass));
  for (std::size_t c = 0; c < run.channels.size(); ++c) {
    const ChannelResult& channel = run.channels[c];
    add(reports.csv, "%.3f,%.3f,%.3f,%u,%d,%zu,%lu,%ld,%ld,%.9f,%.6f,%d,\"%s\"\n", run.requested_hz,
        run.effective_hz, run.expected_decoded_hz, run.divider, run.overflow_required, c,
        channel.count, channel.first_ps, channel.last_ps, channel.measured_hz, channel.ppm_error,
        channel.pass, run.stream_file.c_str());
    add(reports.json,
        "        {\"channel\":%zu,\"count\":%lu,\"first_ps\":%ld,\"last_ps\":%ld,"
        "\"measured_hz\":%.9f,\"ppm_error\":%.6f,\"pass\":%s}%s\n",
        c, channel.count, channel.first_ps, channel.last_ps, channel.measured_hz, channel.ppm_error,
        word(channel.pass), c < 3 ? "," : "");
    if (!counts(config, c)) continue;
    add(reports.summary, "  ch%zu count=%lu measured_hz=%.6f ppm_error=%.6f pass=%s\n", c,
        channel.count, channel.measured_hz, channel.ppm_error, word(channel.pass));
  }
}

}  // namespace

ExpectedReports expected_reports(const Config& config, const std::filesystem::path& run_dir) {
  ExpectedReports runs;
  const std::size_t count = config.frequencies_hz.size();
  for (std::size_t i = 0; i < count; ++i) {
    const RunResult run = measure(config, i, run_dir);
    add_run(runs, run, config);
    runs.json += i + 1 < count ? "      ]\n    },\n" : "      ]\n    }\n";
    runs.pass = runs.pass && run.pass;
  }
  ExpectedReports whole;
  whole.pass = runs.pass;
  whole.csv =
      "requested_hz,effective_hz,expected_decoded_hz,divider,overflow_required,channel,count,"
      "first_ps,last_ps,measured_hz,ppm_error,pass,stream_file\n" +
      runs.csv;
  add(whole.json,
      "{\n  \"verification\":\"overflow_frequency\",\n  \"pass\":%s,\n  \"capture_s\":%.6f,\n"
      "  \"packed_delta_bits\":%u,\n  \"packed_delta_quantum_ps\":%u,\n  \"channel_mask\":%u,\n"
      "  \"decoded_timestamp_seconds_per_second\":0.999900000,\n  \"tolerance_ppm\":%.3f,\n"
      "  \"runs\":[\n",
      word(runs.pass), config.capture_s, config.packed_bits, config.packed_quantum_ps,
      config.channel_mask, config.tolerance_ppm);
  whole.json += runs.json + "  ]\n}\n";
  const std::string stem = (run_dir / "overflow_frequency").string();
  add(whole.summary,
      "Orvo timing packed-delta overflow frequency verification\noutput=%s\ncsv=%s.csv\n"
      "json=%s.json\ncapture_s=%.3f\npacked_bits=%u\npacked_quantum_ps=%u\n"
      "decoded_timestamp_seconds_per_second=0.999900000\ntolerance_ppm=%.3f\npass=%s\n",
      run_dir.c_str(), stem.c_str(), stem.c_str(), config.capture_s, config.packed_bits,
      config.packed_quantum_ps, config.tolerance_ppm, word(runs.pass));
  whole.summary += runs.summary;
  return whole;
}

}  // namespace orvo::tests
