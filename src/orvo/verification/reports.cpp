#include "orvo/verification/reports.h"

#include <iostream>

namespace orvo::verification {

void write_reports(const std::filesystem::path& output_root, const std::filesystem::path& run_dir,
                   const Config& config, const std::vector<RunResult>& results, bool all_pass) {
  const std::filesystem::path csv_path = run_dir / "overflow_frequency.csv";
  const std::filesystem::path json_path = run_dir / "overflow_frequency.json";
  write_csv(csv_path, results);
  write_json_report(json_path, config, results, all_pass);
  const std::string summary_text =
      format_summary(run_dir, csv_path, json_path, config, results, all_pass);
  write_text_file(run_dir / "overflow_frequency.summary.txt", summary_text);
  publish_latest(output_root, csv_path, json_path, summary_text);

  std::cout << summary_text;
  std::cout << "latest_summary=" << (output_root / "latest_summary.txt").string() << '\n';
  std::cout << "latest_json=" << (output_root / "latest.json").string() << '\n';
}

}  // namespace orvo::verification
