// ortime's commands on one recording, against the bare decoder.

#include <sys/resource.h>

#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "orvo/inspection/info.h"
#include "orvo/inspection/report/report.h"
#include "orvo/inspection/tags.h"
#include "orvo/inspection/verify.h"
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
    timing::StreamFileHeader header;
    header.mode = timing::Mode::internal;
    timing::StreamFileWriter writer;
    writer.open(file, header);
    const std::vector<std::uint8_t> payload = captured_bytes(kHz, kSeconds);
    writer.write(payload.data(), payload.size());
  }
  const auto decode = [] {
    timing::StreamFileReader reader;
    reader.open(file);
    reader.for_each_batch(kChunkBytes, [](std::span<const timing::TimeTag>) {});
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
  const auto seconds_of_command = [](const auto& command) {
    return processor_seconds_of(RUSAGE_SELF, [&] { silently(command); });
  };
  decode();
  return {{"decode", processor_seconds_of(RUSAGE_SELF, decode)},
          {"verify", seconds_of_command([&] { return inspection::verify(verify); })},
          {"info", seconds_of_command([] { return inspection::info({.paths = {file}}); })},
          {"report", seconds_of_command([&] { return inspection::report(report); })},
          {"tags", seconds_of_command([&] { return inspection::tags(tags); })}};
}

}  // namespace

void add_inspection(Table& table) {
  constexpr double kVerify = 1.5;
  constexpr double kInfo = 2.5;
  constexpr double kReport = 3;
  constexpr double kTags = 2;
  add_benchmark("ortime", measure_commands);
  const auto add = [&](const char* what, const char* figure, double limit) {
    table.add(Row{what, "decoding", {{"ortime", figure, "decode"}}, at_most(limit)});
  };
  add("ortime verify, 4 x 100 kHz: processor time", "verify", kVerify);
  add("ortime info, 4 x 100 kHz: processor time", "info", kInfo);
  add("ortime report, 4 x 100 kHz: processor time", "report", kReport);
  add("ortime tags to NumPy, 4 x 100 kHz: processor time", "tags", kTags);
}

}  // namespace orvo::benchmarks
