#include "orvo/timing/json_text.h"
#include "orvo/verification/evaluation.h"
#include "orvo/verification/report_stream.h"
#include "orvo/verification/reports.h"

namespace orvo::verification {
namespace {

void write_settings(std::ostream& out, const Config& config) {
  out << "  \"capture_s\":" << Fixed{config.capture_s, 6} << ",\n"
      << "  \"packed_delta_bits\":" << unsigned{config.packed_bits} << ",\n"
      << "  \"packed_delta_quantum_ps\":" << config.packed_quantum_ps << ",\n"
      << "  \"channel_mask\":" << unsigned{config.channel_mask} << ",\n"
      << "  \"decoded_timestamp_seconds_per_second\":"
      << Fixed{kDecodedTimestampSecondsPerSecond, 9} << ",\n"
      << "  \"tolerance_ppm\":" << Fixed{config.tolerance_ppm, 3} << ",\n";
}

void write_channel(std::ostream& out, std::size_t channel, const ChannelResult& result) {
  out << "        {\"channel\":" << channel << ",\"count\":" << result.count
      << ",\"first_ps\":" << result.first_ps << ",\"last_ps\":" << result.last_ps
      << ",\"measured_hz\":" << Fixed{result.measured_hz, 9}
      << ",\"ppm_error\":" << Fixed{result.ppm_error, 6}
      << ",\"pass\":" << true_or_false(result.pass) << '}'
      << (channel + 1 < kChannels ? ",\n" : "\n");
}

void write_run(std::ostream& out, const RunResult& run) {
  out << "    {\n"
      << "      \"requested_hz\":" << Fixed{run.requested_hz, 3} << ",\n"
      << "      \"effective_hz\":" << Fixed{run.effective_hz, 3} << ",\n"
      << "      \"expected_decoded_hz\":" << Fixed{run.expected_decoded_hz, 3} << ",\n"
      << "      \"divider\":" << run.divider << ",\n"
      << "      \"overflow_required\":" << true_or_false(run.overflow_required) << ",\n"
      << "      \"pass\":" << true_or_false(run.pass) << ",\n"
      << "      \"stream_file\":\"" << timing::detail::json_escape(run.stream_file.string())
      << "\",\n"
      << "      \"payload_bytes\":" << run.payload_bytes << ",\n"
      << "      \"decoded_tags\":" << run.decoded_tags << ",\n"
      << "      \"channels\":[\n";
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    write_channel(out, channel, run.channels[channel]);
  }
  out << "      ]\n"
      << "    }";
}

}  // namespace

void write_json_report(const std::filesystem::path& json_path, const Config& config,
                       const std::vector<RunResult>& results, bool all_pass) {
  std::ofstream out = open_report(json_path, "could not open overflow JSON output");
  out << "{\n"
      << "  \"verification\":\"overflow_frequency\",\n"
      << "  \"pass\":" << true_or_false(all_pass) << ",\n";
  write_settings(out, config);
  out << "  \"runs\":[\n";
  for (const RunResult& run : results) {
    write_run(out, run);
    out << (&run != &results.back() ? ",\n" : "\n");
  }
  out << "  ]\n"
      << "}\n";
}

}  // namespace orvo::verification
