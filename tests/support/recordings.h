// Recordings of four channels that fire together, written record by record, and ortime on runs of
// them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "orvo/inspection/commands.h"
#include "orvo/timing/stream_files.h"
#include "orvo/verification/reports.h"
#include "support/record_writer.h"
#include "support/scratch.h"

namespace orvo::tests {

/// Packed-delta records of 16 bits and 8 ps. Channel c fires skew_ps(c) after channel 0.
class PackedWriter {
 public:
  static constexpr std::uint32_t kDivider = 1'000;
  static constexpr double kPeriodPs = 1e12 * verification::kDecodedTimestampSecondsPerSecond *
                                      kDivider / verification::kCalibrationBaseHz;
  static constexpr double skew_ps(std::size_t channel) {
    return 248.0 * static_cast<double>(channel);
  }

  PackedWriter() {
    header.mode = timing::Mode::internal;
    header.application = "test";
  }

  /// A lock needs a sync of each channel; they come by themselves with the first events.
  void sync() { synced_ = false; }

  /// The next `count` events of each channel, but none of `silent`, every interval of channel 2
  /// longer by `slow_ppm`.
  void events(unsigned count, unsigned silent = 4, double slow_ppm = 0) {
    slow_ppm_ = slow_ppm;
    for (unsigned i = 0; i < count; ++i, ++event_) {
      for (unsigned c = 0; c < 4; ++c) {
        if (c != silent) event(c);
      }
      synced_ = true;
    }
  }
  /// All channels go on later by `time_ps`.
  void jump(std::uint64_t time_ps) { start_ticks_ += time_ps / 8; }
  /// A record of another channel amid a sync: the lock is lost.
  void lose_lock() {
    put(0, 1, 0xFFFF);
    put(1, 0, 0);
  }
  void put(unsigned channel, unsigned flag, std::uint64_t payload) {
    records_.record(channel, flag != 0, payload);
  }

  void save(const std::string& file) {
    timing::StreamFileWriter writer;
    writer.open(file, header);
    writer.write(records_.bytes.data(), records_.bytes.size());
    writer.close();
  }

  timing::StreamFileHeader header;

 private:
  [[nodiscard]] std::uint64_t ticks_of(unsigned channel) const {
    const double stretch = 1 + (channel == 2 ? slow_ppm_ * 1e-6 : 0);
    const double time_ps = event_ * kPeriodPs * stretch + skew_ps(channel);
    return start_ticks_ + static_cast<std::uint64_t>(std::llround(time_ps / 8));
  }
  void event(unsigned channel) {
    const std::uint64_t now = ticks_of(channel);
    std::uint64_t step = now - last_[channel];
    if (!synced_) {
      records_.sync(channel, now);
      step = 0;
    }
    records_.data(channel, step);
    last_[channel] = now;
  }

  RecordWriter records_;
  std::uint64_t start_ticks_ = 125'000'000'000;
  std::uint64_t last_[4] = {};
  double slow_ppm_ = 0;
  unsigned event_ = 0;
  bool synced_ = false;
};

/// What a command line asks for; its words are separated by spaces, and '' is an empty one.
inline inspection::Command parse(const std::string& words) {
  std::istringstream stream("ortime " + words);
  const std::vector<std::string> list(std::istream_iterator<std::string>(stream), {});
  std::vector<const char*> argv;
  for (const std::string& word : list) argv.push_back(word == "''" ? "" : word.c_str());
  return inspection::parse_command_line(static_cast<int>(argv.size()), argv.data());
}

/// Of a command line that has been answered already.
inline int run(int status) { return status; }

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// ortime in a directory of the test's own, which is the current one and becomes a run directory.
class Ortime : public testing::Test {
 protected:
  Ortime() { std::filesystem::current_path(scratch.path()); }
  ~Ortime() override { std::filesystem::current_path("/"); }

  /// Adds a run, recorded as `write` says and judged as it was, read in pieces of 4,096 bytes.
  void add_run(const std::function<void(PackedWriter&)>& write) {
    PackedWriter writer;
    write(writer);
    const std::string file = recording(runs.size() + 1);
    writer.save(file);
    verification::EvaluationSettings settings;
    settings.channel_mask = config.channel_mask;
    verification::RunResult& run = runs.emplace_back(
        judge(verification::read_tag_statistics(file, 4096),
              verification::derive_rates(PackedWriter::kDivider, settings), settings));
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

  /// Runs a command as the program does. `out` and `err` get what it prints, the directory as ".".
  int ortime(const std::string& words) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int status = inspection::kExitError;
    try {
      status = std::visit([](const auto& command) { return run(command); }, parse(words));
    } catch (const std::exception& error) {
      std::cerr << "ortime: " << error.what() << '\n';
    }
    out = without_place(testing::internal::GetCapturedStdout());
    err = without_place(testing::internal::GetCapturedStderr());
    return status;
  }

  ScratchDirectory scratch;
  verification::Config config;
  std::vector<verification::RunResult> runs;
  std::string out, err;

 private:
  [[nodiscard]] std::string without_place(std::string text) const {
    const std::string place = scratch.path().string();
    for (std::size_t at = 0; (at = text.find(place, at)) != std::string::npos;) {
      text.replace(at, place.size(), 1, '.');
    }
    return text;
  }
};

}  // namespace orvo::tests
