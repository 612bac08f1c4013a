#include <system_error>

#include "orvo/timing/error.h"
#include "orvo/verification/directory_lock.h"
#include "orvo/verification/report_stream.h"
#include "orvo/verification/reports.h"

namespace orvo::verification {
namespace {

void throw_if(const std::error_code& error, const char* failure,
              const std::filesystem::path& path) {
  if (error) {
    throw timing::Error(OT_ERR_IO, failure + path.string() + ": " + error.message());
  }
}

}  // namespace

void write_text_file(const std::filesystem::path& path, const std::string& text) {
  open_report(path, "could not open text output") << text;
}

void copy_file_checked(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::error_code error;
  std::filesystem::remove(to, error);  // a link would be written through
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
  throw_if(error, "could not publish ", to);
}

void publish_latest(const std::filesystem::path& output_root, const std::filesystem::path& csv_path,
                    const std::filesystem::path& json_path, const std::string& summary_text) {
  std::error_code error;
  std::filesystem::create_directories(output_root, error);
  throw_if(error, "could not create output root ", output_root);
  const DirectoryLock one_start_at_a_time(output_root);
  copy_file_checked(csv_path, output_root / "latest.csv");
  copy_file_checked(json_path, output_root / "latest.json");
  write_text_file(output_root / "latest_summary.txt", summary_text);
}

}  // namespace orvo::verification
