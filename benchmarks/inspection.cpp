// ortime's commands on one recording, against the bare decoder.

#include <sys/resource.h>

#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "orvo/inspection/commands.h"
#include "orvo/timing/stream_files.h"
#include "streams.h"
#include "support/scratch.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

constexpr double kHz = 100'000;
constexpr double kSeconds = 30;  // about 55 MiB

/// What is printed is left out.
template <typename Action>
void silently(const Action& action) {
  std::ostringstream nowhere;
  std::streambuf* const out = std::cout.rdbuf(nowhere.rdbuf());
  const int status = action();
  std::cout.rdbuf(out);
  if (status == 1) {
    throw std::logic_error("a command has failed");
  }
}

Figures measure_commands() {
  static const tests::ScratchDirectory directory;
  static const std::string file = directory.file("overflow_frequency_01.ortime");
  if (!std::filesystem::exists(file)) {
    write_recording(file, captured_bytes(kHz, kSeconds));
  }
  // With hardly an interval among the common ones, which are counted in passing.
  static const std::string jittery = directory.file("jittery.ortime");
  if (!std::filesystem::exists(jittery)) {
    write_recording(jittery, captured_bytes(kHz, kSeconds, 2'500'000));
  }
  const auto decode = [] {
    timing::StreamFileReader reader;
    reader.open(file);
    std::size_t tags = 0;
    reader.for_each_batch(kChunkBytes, [&tags](auto batch) { tags += batch.size(); });
    return tags;
  };
  inspection::TagsOptions tags;
  tags.path = file;
  tags.format = inspection::TagFormat::npy;
  tags.output = directory.file("tags.npy");
  inspection::VerifyOptions verify;
  verify.path = file;
  verify.requested_hz = kHz;
  inspection::ReportOptions report;
  report.path = directory.path();
  report.output = directory.file("page.html");
  Figures figures = {{"timestamps", static_cast<double>(decode())},
                     {"bytes", static_cast<double>(std::filesystem::file_size(file))},
                     {"timestamps_hz", 4 * kHz}};
  const auto measure = [&figures](const std::string& name, const auto& action) {
    figures[name + " elapsed"] =
        seconds_of([&] { figures[name] = processor_seconds_of(RUSAGE_SELF, action); });
  };
  measure("decode", decode);
  measure("verify", [&] { silently([&] { return inspection::run(verify); }); });
  measure("info", [&] {
    silently([] { return inspection::run(inspection::InfoOptions{.paths = {file}}); });
  });
  measure("info jittery", [&] {
    silently([] { return inspection::run(inspection::InfoOptions{.paths = {jittery}}); });
  });
  measure("report", [&] { silently([&] { return inspection::run(report); }); });
  measure("tags", [&] { silently([&] { return inspection::run(tags); }); });
  return figures;
}

}  // namespace

void add_inspection(Table& table) {
  constexpr double kVerify = 1.5;
  constexpr double kInfo = 2.5;
  constexpr double kJittery = 20;
  constexpr double kReport = 2.5;
  constexpr double kTags = 2;
  add_benchmark("ortime", measure_commands);
  table.add(Speed{"read a recording, 4 x 100 kHz", "ortime", "decode elapsed"});
  const auto add = [&](const std::string& command, const std::string& figure, double limit) {
    table.add(Speed{"ortime " + command + ", 4 x 100 kHz", "ortime", figure + " elapsed"});
    table.add(Row{"ortime " + command + ", 4 x 100 kHz: processor time",
                  "decoding",
                  {{"ortime", figure, "decode"}},
                  at_most(limit)});
  };
  add("verify", "verify", kVerify);
  add("info", "info", kInfo);
  add("info, jitter 2.5 us", "info jittery", kJittery);
  add("report", "report", kReport);
  add("tags to NumPy", "tags", kTags);
}

}  // namespace orvo::benchmarks
