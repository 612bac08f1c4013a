#include "orvo/verification/report_stream.h"
#include "orvo/verification/reports.h"

namespace orvo::verification {
namespace {

const char* one_or_zero(bool value) { return value ? "1" : "0"; }

void write_row(std::ostream& out, const RunResult& run, std::size_t channel) {
  const ChannelResult& result = run.channels[channel];
  out << Fixed{run.requested_hz, 3} << ',' << Fixed{run.effective_hz, 3} << ','
      << Fixed{run.expected_decoded_hz, 3} << ',' << run.divider << ','
      << one_or_zero(run.overflow_required) << ',' << channel << ',' << result.count << ','
      << result.first_ps << ',' << result.last_ps << ',' << Fixed{result.measured_hz, 9} << ','
      << Fixed{result.ppm_error, 6} << ',' << one_or_zero(result.pass) << ",\""
      << run.stream_file.string() << "\"\n";
}

}  // namespace

void write_csv(const std::filesystem::path& csv_path, const std::vector<RunResult>& results) {
  std::ofstream out = open_report(csv_path, "could not open overflow CSV output");
  out << "requested_hz,effective_hz,expected_decoded_hz,divider,overflow_required,channel,count,"
         "first_ps,last_ps,measured_hz,ppm_error,pass,stream_file\n";
  for (const RunResult& run : results) {
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      write_row(out, run, channel);
    }
  }
}

}  // namespace orvo::verification
