// judge FILE DIVIDER: decodes a stream file and prints each channel as the CSV report has it.
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>

#include "orvo/timing/stream_files.h"
#include "orvo/verification/evaluation.h"

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  orvo::timing::StreamFileReader reader;
  reader.open(argv[1]);
  orvo::verification::TagStatistics statistics;
  while (true) {
    const auto tags = reader.next_tags(65536, 1 << 20);
    if (tags.empty()) break;
    statistics.add(tags);
  }

  orvo::verification::EvaluationSettings settings;
  settings.packed_bits = reader.header().delta_bits;
  settings.packed_quantum_ps = reader.header().quantum_ps;
  orvo::verification::RunResult result;
  orvo::verification::derive_rates(static_cast<std::uint32_t>(std::stoul(argv[2])), settings,
                                   result);
  orvo::verification::judge(statistics, settings, result);
  for (std::size_t i = 0; i < result.channels.size(); ++i) {
    const orvo::verification::ChannelResult& channel = result.channels[i];
    std::cout << ',' << i << ',' << channel.count << ',' << channel.first_ps << ','
              << channel.last_ps << ',' << '\n';
  }
  return result.pass ? 0 : 2;
}
