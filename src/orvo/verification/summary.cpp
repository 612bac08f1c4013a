#include <sstream>

#include "orvo/verification/evaluation.h"
#include "orvo/verification/report_stream.h"
#include "orvo/verification/reports.h"

namespace orvo::verification {
namespace {

void add_run(std::ostream& out, const RunResult& run) {
  out << "run requested_hz=" << Fixed{run.requested_hz, 3}
      << " effective_hz=" << Fixed{run.effective_hz, 3}
      << " expected_decoded_hz=" << Fixed{run.expected_decoded_hz, 3} << " divider=" << run.divider
      << " overflow_required=" << true_or_false(run.overflow_required)
      << " decoded_tags=" << run.decoded_tags << " pass=" << true_or_false(run.pass) << '\n';
}

void add_channel(std::ostream& out, std::size_t channel, const ChannelResult& result) {
  out << "  ch" << channel << " count=" << result.count
      << " measured_hz=" << Fixed{result.measured_hz, 6}
      << " ppm_error=" << Fixed{result.ppm_error, 6} << " pass=" << true_or_false(result.pass)
      << '\n';
}

}  // namespace

std::string format_summary(const std::filesystem::path& run_dir,
                           const std::filesystem::path& csv_path,
                           const std::filesystem::path& json_path, const Config& config,
                           const std::vector<RunResult>& results, bool all_pass) {
  std::ostringstream out;
  out << "Orvo timing packed-delta overflow frequency verification\n"
      << "output=" << run_dir.string() << '\n'
      << "csv=" << csv_path.string() << '\n'
      << "json=" << json_path.string() << '\n'
      << "capture_s=" << Fixed{config.capture_s, 3} << '\n'
      << "packed_bits=" << unsigned{config.packed_bits} << '\n'
      << "packed_quantum_ps=" << config.packed_quantum_ps << '\n'
      << "decoded_timestamp_seconds_per_second=" << Fixed{kDecodedTimestampSecondsPerSecond, 9}
      << '\n'
      << "tolerance_ppm=" << Fixed{config.tolerance_ppm, 3} << '\n'
      << "pass=" << true_or_false(all_pass) << '\n';
  for (const RunResult& run : results) {
    add_run(out, run);
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      if (channel_counts(config.channel_mask, channel)) {
        add_channel(out, channel, run.channels[channel]);
      }
    }
  }
  return out.str();
}

}  // namespace orvo::verification
