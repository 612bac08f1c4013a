#include "orvo/verification/reports.h"

#include <chrono>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <system_error>
#include <type_traits>
#include <utility>

#include "orvo/timing/error.h"
#include "orvo/timing/json_text.h"
#include "orvo/verification/directory_lock.h"

namespace orvo::verification {
namespace {

constexpr const char* kLatestCsv = "latest.csv";
constexpr const char* kLatestJson = "latest.json";
constexpr const char* kLatestSummary = "latest_summary.txt";
constexpr const char* kTextNotOpened = "could not open text output";

const char* true_or_false(bool value) { return value ? "true" : "false"; }

/// Creates or truncates `path`; throws timing::Error with `failure_message` when that fails.
std::ofstream open_report(const std::filesystem::path& path, const char* failure_message) {
  std::ofstream file(path);
  if (!file) {
    throw timing::Error(OT_ERR_IO, failure_message);
  }
  return file;
}

/// Closes `file`; throws timing::Error with `failure_message` unless all of it was written.
void close_report(std::ofstream& file, const char* failure_message) {
  file.close();
  if (!file) {
    throw timing::Error(OT_ERR_IO, failure_message);
  }
}

void write_csv_heading(std::ostream& out) {
  const auto put_name = [&](const char* name, const auto&...) { out << name << ','; };
  const RunResult none;
  visit_source(none, put_name);
  put_name("channel");
  visit_channel(none.channels[0], put_name);
  out << "stream_file\n";
}

void write_text(std::ofstream file, const std::string& text) {
  file << text;
  close_report(file, "could not write text output");
}

void write_csv_row(std::ostream& out, const RunResult& run, std::size_t channel) {
  const auto put = [&](const char*, const auto& value, int decimals = 0) {
    out << std::fixed << std::setprecision(decimals) << value << ',';  // true as 1
  };
  visit_source(run, put);
  out << channel << ',';
  visit_channel(run.channels[channel], put);
  out << '"' << run.stream_file.string() << "\"\n";
}

void write_json_settings(std::ostream& out, const Config& config) {
  out << "  \"capture_s\":" << Fixed{config.capture_s, 6} << ",\n"
      << "  \"packed_delta_bits\":" << unsigned{config.packed_bits} << ",\n"
      << "  \"packed_delta_quantum_ps\":" << config.packed_quantum_ps << ",\n"
      << "  \"channel_mask\":" << unsigned{config.channel_mask} << ",\n"
      << "  \"decoded_timestamp_seconds_per_second\":"
      << Fixed{kDecodedTimestampSecondsPerSecond, 9} << ",\n"
      << "  \"tolerance_ppm\":" << Fixed{config.tolerance_ppm, 3} << ",\n";
}

/// What a visit of a result's values calls to write each as a member, after `before`.
auto json_members(std::ostream& out, const char* before, const char* between) {
  return [&out, before, between](const char* name, const auto& value, int decimals = 0) mutable {
    using Value = std::remove_cvref_t<decltype(value)>;
    out << std::exchange(before, between) << '"' << name << "\":";
    if constexpr (std::is_same_v<Value, bool>) {
      out << true_or_false(value);
    } else if constexpr (std::is_same_v<Value, std::filesystem::path>) {
      out << '"' << timing::detail::json_escape(value.string()) << '"';
    } else {
      out << std::fixed << std::setprecision(decimals) << value;
    }
  };
}

void write_json_channel(std::ostream& out, std::size_t channel, const ChannelResult& result) {
  out << "        {\"channel\":" << channel;
  visit_channel(result, json_members(out, ",", ","));
  out << '}' << (channel + 1 < kChannels ? ",\n" : "\n");
}

void write_json_run(std::ostream& out, const RunResult& run) {
  out << "    {";
  visit_run(run, json_members(out, "\n      ", ",\n      "));
  out << ",\n      \"channels\":[\n";
  for (std::size_t channel = 0; channel < kChannels; ++channel) {
    write_json_channel(out, channel, run.channels[channel]);
  }
  out << "      ]\n"
      << "    }";
}

void add_summary_run(std::ostream& out, const RunResult& run) {
  out << "run requested_hz=" << Fixed{run.requested_hz, 3}
      << " effective_hz=" << Fixed{run.effective_hz, 3}
      << " expected_decoded_hz=" << Fixed{run.expected_decoded_hz, 3} << " divider=" << run.divider
      << " overflow_required=" << true_or_false(run.overflow_required)
      << " decoded_tags=" << run.decoded_tags << " pass=" << true_or_false(run.pass) << '\n';
}

void add_summary_channel(std::ostream& out, std::size_t channel, const ChannelResult& result) {
  out << "  ch" << channel << " count=" << result.count
      << " measured_hz=" << Fixed{result.measured_hz, 6}
      << " ppm_error=" << Fixed{result.ppm_error, 6} << " pass=" << true_or_false(result.pass)
      << '\n';
}

void throw_if(const std::error_code& error, const char* failure,
              const std::filesystem::path& path) {
  if (error) {
    throw timing::Error(OT_ERR_IO, failure + path.string() + ": " + error.message());
  }
}

/// One row for each run and channel, also for channels outside the channel mask.
void write_csv(const std::filesystem::path& csv_path, const std::vector<RunResult>& results) {
  std::ofstream out = open_report(csv_path, "could not open overflow CSV output");
  write_csv_heading(out);
  for (const RunResult& run : results) {
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      write_csv_row(out, run, channel);
    }
  }
  close_report(out, "could not write overflow CSV output");
}

void write_json_report(const std::filesystem::path& json_path, const Config& config,
                       const std::vector<RunResult>& results, bool all_pass) {
  std::ofstream out = open_report(json_path, "could not open overflow JSON output");
  out << "{\n"
      << "  \"verification\":\"" << kVerificationName << "\",\n"
      << "  \"pass\":" << true_or_false(all_pass) << ",\n";
  write_json_settings(out, config);
  out << "  \"runs\":[\n";
  for (const RunResult& run : results) {
    write_json_run(out, run);
    out << (&run != &results.back() ? ",\n" : "\n");
  }
  out << "  ]\n"
      << "}\n";
  close_report(out, "could not write overflow JSON output");
}

/// Text for people; shows the channels that count.
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
    add_summary_run(out, run);
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
      if (channel_counts(config.channel_mask, channel)) {
        add_summary_channel(out, channel, run.channels[channel]);
      }
    }
  }
  return out.str();
}

void write_text_file(const std::filesystem::path& path, const std::string& text) {
  write_text(open_report(path, kTextNotOpened), text);
}

/// Removes `to`, also where it is a link or an empty folder, then copies `from` there. What a
/// failed copy has left is removed.
void copy_file_checked(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::error_code error;
  std::filesystem::remove(to, error);  // a link would be written through
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
  // The library's fallback for file systems without sendfile() reports no error for a part.
  if (!error && std::filesystem::file_size(to, error) != std::filesystem::file_size(from, error)) {
    error = std::make_error_code(std::errc::io_error);
  }
  if (error) {
    std::error_code ignored;
    std::filesystem::remove(to, ignored);  // a part of it
  }
  throw_if(error, "could not publish ", to);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Fixed number) {
  return out << std::fixed << std::setprecision(number.decimals) << number.value;
}

void write_reports(const std::filesystem::path& output_root, const std::filesystem::path& run_dir,
                   const Config& config, const std::vector<RunResult>& results, bool all_pass) {
  const std::string name = kVerificationName;
  const std::filesystem::path csv_path = run_dir / (name + ".csv");
  const std::filesystem::path json_path = run_dir / (name + ".json");
  write_csv(csv_path, results);
  write_json_report(json_path, config, results, all_pass);
  const std::string summary_text =
      format_summary(run_dir, csv_path, json_path, config, results, all_pass);
  write_text_file(run_dir / (name + ".summary.txt"), summary_text);
  publish_latest(output_root, csv_path, json_path, summary_text);

  std::cout << summary_text;
  std::cout << "latest_summary=" << (output_root / kLatestSummary).string() << '\n';
  std::cout << "latest_json=" << (output_root / kLatestJson).string() << '\n';
}

void publish_latest(const std::filesystem::path& output_root, const std::filesystem::path& csv_path,
                    const std::filesystem::path& json_path, const std::string& summary_text) {
  std::error_code error;
  std::filesystem::create_directories(output_root, error);
  throw_if(error, "could not create output root ", output_root);
  // Other instances hold it for their copies only. Whoever holds it longer is something else, such
  // as a script that runs this tool under a lock on the folder.
  const DirectoryLock one_start_at_a_time(output_root, std::chrono::seconds(10));
  copy_file_checked(csv_path, output_root / kLatestCsv);
  copy_file_checked(json_path, output_root / kLatestJson);
  const std::filesystem::path summary_path = output_root / kLatestSummary;
  // A new file: an instance that is late writes into the old one.
  if (std::filesystem::is_regular_file(std::filesystem::symlink_status(summary_path, error))) {
    std::filesystem::remove(summary_path, error);
  }
  std::ofstream summary = open_report(summary_path, kTextNotOpened);
  try {
    write_text(std::move(summary), summary_text);
  } catch (const timing::Error&) {
    std::filesystem::remove(summary_path, error);
    throw;
  }
}

}  // namespace orvo::verification
