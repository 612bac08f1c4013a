// Recordings that the simulated instrument makes, and ortime on runs of them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "orvo/inspection/commands.h"
#include "orvo/timing/stream_files.h"
#include "orvo/verification/reports.h"
#include "support/instrument.h"
#include "support/scratch.h"

namespace orvo::tests {

/// Damage of a record amid a sync.
inline const std::string kLostLock = "damage=flip@68507,flip@68508,flip@68509";

/// Of a command line that has been answered already.
inline int run(int status) { return status; }

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// ortime in a directory of the test's own, which is the current one and becomes a run directory.
class Ortime : public testing::Test {
 protected:
  Ortime() {
    std::filesystem::current_path(scratch.path());
    header.mode = timing::Mode::internal;
  }
  ~Ortime() override { std::filesystem::current_path("/"); }

  static constexpr std::uint32_t kDivider = 1'000;
  static constexpr double kPeriodPs = 1e12 * verification::kDecodedTimestampSecondsPerSecond *
                                      kDivider / verification::kCalibrationBaseHz;

  /// Records so many periods, without jitter, but as `sim` says.
  void record(const std::string& file, unsigned periods, const std::string& sim = "") const {
    const auto end_ps = static_cast<std::uint64_t>((periods - 0.5) * kPeriodPs);
    const Instrument instrument{.mask = header.channel_mask,
                                .divider = kDivider,
                                .duration_ps = end_ps,
                                .sim = "jitter_ps=0;" + sim};
    timing::StreamFileWriter writer;
    writer.open(file, header);
    simulator::Stream stream = instrument.stream();
    std::vector<std::uint8_t> bytes(4096);
    while (const std::size_t got = stream.read(bytes, simulator::kNever - 1)) {
      writer.write(bytes.data(), got);
    }
    writer.close();
  }

  /// Adds a run that is recorded so, and judged as it was read, in pieces of 4,096 bytes.
  void add_run(unsigned periods, const std::string& sim = "") {
    const std::string file = recording(runs.size() + 1);
    record(file, periods, sim);
    verification::EvaluationSettings settings;
    settings.channel_mask = config.channel_mask;
    verification::RunResult& run =
        runs.emplace_back(judge(verification::read_tag_statistics(file, 4096),
                                verification::derive_rates(kDivider, settings), settings));
    run.requested_hz = 31'000;
    run.stream_file = scratch.file(file);
    run.payload_bytes = payload_of(file).size();
  }
  static std::string recording(std::size_t run) {
    return "overflow_frequency_0" + std::to_string(run) + ".ortime";
  }
  void save_report(const std::filesystem::path& directory = ".") const {
    const bool pass = std::all_of(runs.begin(), runs.end(), [](auto& run) { return run.pass; });
    write_json_report(directory / "overflow_frequency.json", config, runs, pass);
  }

  /// Runs a command as the program does; its words are separated by spaces, and '' is an empty one.
  /// `out` and `err` get what it prints, the directory as ".".
  int ortime(const std::string& words) {
    std::istringstream stream("ortime " + words);
    const std::vector<std::string> list(std::istream_iterator<std::string>(stream), {});
    std::vector<const char*> argv;
    for (const std::string& word : list) argv.push_back(word == "''" ? "" : word.c_str());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int status = inspection::kExitError;
    try {
      status =
          std::visit([](const auto& command) { return run(command); },
                     inspection::parse_command_line(static_cast<int>(argv.size()), argv.data()));
    } catch (const std::exception& error) {
      std::cerr << "ortime: " << error.what() << '\n';
    }
    out = without_place(testing::internal::GetCapturedStdout());
    err = without_place(testing::internal::GetCapturedStderr());
    return status;
  }

  ScratchDirectory scratch;
  timing::StreamFileHeader header;  // of the recordings to come
  verification::Config config;
  std::vector<verification::RunResult> runs;
  std::string out, err;

 private:
  [[nodiscard]] std::string without_place(const std::string& text) const {
    return std::regex_replace(text, std::regex(scratch.path().string()), ".");
  }
};

}  // namespace orvo::tests
