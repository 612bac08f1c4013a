// judge FILE DIVIDER: decodes a recording and judges the rate of each channel.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <string>

#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"

namespace verification = orvo::verification;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "Usage: judge FILE DIVIDER\n";
    return 64;
  }
  try {
    orvo::timing::StreamFileReader reader;
    reader.open(argv[1]);
    verification::TagStatistics statistics;
    reader.for_each_batch(1 << 20, [&](auto tags) { statistics.add(tags); });

    const verification::EvaluationSettings settings = verification::settings_of(reader.header());
    const auto divider = static_cast<std::uint32_t>(std::stoul(argv[2]));
    const verification::RunResult result =
        verification::judge(statistics, verification::derive_rates(divider, settings), settings);
    for (std::size_t i = 0; i < result.channels.size(); ++i) {
      const verification::ChannelResult& channel = result.channels[i];
      std::cout << "channel " << i << ": " << channel.count << " events, " << channel.first_ps
                << " to " << channel.last_ps << " ps, " << channel.ppm_error << " ppm\n";
    }
    return result.pass ? 0 : 2;
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
