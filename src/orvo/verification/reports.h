// The reports of a whole verification and their publication as the latest results.
//
// Threads: no state; one thread at a time for each folder. Errors: timing::Error with OT_ERR_IO for
// a file that cannot be opened, written to its last byte or published. Files written before a
// failure stay, and a part of a report in its run directory; a part of a published one is removed.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <vector>

#include "orvo/verification/config.h"
#include "orvo/verification/evaluation.h"

namespace orvo::verification {

/// `value` with exactly `decimals` digits after the point; leaves the stream in fixed notation.
struct Fixed {
  double value;
  int decimals;
};
std::ostream& operator<<(std::ostream& out, Fixed number);

/// Writes overflow_frequency.csv, .json and .summary.txt into `run_dir`, publishes them in
/// `output_root` and prints the summary on standard output.
void write_reports(const std::filesystem::path& output_root, const std::filesystem::path& run_dir,
                   const Config& config, const std::vector<RunResult>& results, bool all_pass);

/// Makes latest.csv, latest.json and latest_summary.txt in `output_root`, created where missing.
/// Instances that publish into one folder take turns.
void publish_latest(const std::filesystem::path& output_root, const std::filesystem::path& csv_path,
                    const std::filesystem::path& json_path, const std::string& summary_text);

}  // namespace orvo::verification
