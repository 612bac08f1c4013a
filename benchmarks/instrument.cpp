// In real time: what the simulated instrument takes of a core, and how long the whole tool takes.

#include <sys/resource.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "orvo/simulator/device.h"
#include "support/scratch.h"
#include "topics.h"

namespace orvo::benchmarks {
namespace {

/// The share of one core that 4 x 2 MHz take.
Figures measure_instrument() {
  constexpr double kSeconds = 1;
  constexpr int kReadTimeoutMs = 20;
  const simulator::Settings settings;
  simulator::InstrumentClock clock(settings.clock_ps, true);
  simulator::Device device(settings, clock, {});
  std::uint32_t divider = 0;
  device.set_calibration_freq(2e6, divider);
  clock.start();
  device.start(static_cast<ot_mode>(timing::Mode::internal));
  std::vector<std::uint8_t> buffer(1 << 20);
  std::uint64_t total = 0;
  double seconds = 0;
  const double processor_seconds = processor_seconds_of(RUSAGE_THREAD, [&] {
    while (seconds < kSeconds) {
      seconds += seconds_of([&] {
        std::uint64_t got = 0;
        device.read(buffer, got, kReadTimeoutMs);
        total += got;
      });
    }
  });
  // At least one record of 19 bits an event.
  if (static_cast<double>(total) < 8e6 * 19 / 8 * 0.95) {
    throw std::logic_error("the instrument does not keep up");
  }
  return {{"share", processor_seconds / seconds}};
}

/// The time of a default run as a share of what it may take.
Figures measure_tool() {
  constexpr double kAllowedSeconds = 3 * (0.35 + 0.02) + 0.05;
  const tests::ScratchDirectory directory;
  const std::string simulated = ORVO_PROGRAMS "/ot-simulated";
  const std::string command = "'" + simulated + "' ot_verify_overflow_frequency --output-root='" +
                              directory.file("results") + "' >/dev/null 2>&1";
  int status = 0;
  const double seconds = seconds_of([&] { status = std::system(command.c_str()); });
  if (status != 0) {
    throw std::runtime_error("the tool failed");
  }
  return {{"share", seconds / kAllowedSeconds}, {"seconds", seconds}};
}

}  // namespace

void add_instrument_and_tool(Table& table) {
  constexpr double kCoreShare = 0.25;
  add_benchmark("instrument", measure_instrument);
  table.add(Row{"simulated instrument, 4 x 2 MHz: processor time",
                "real time",
                {{"instrument", "share", ""}},
                at_most(kCoreShare),
                Unit::percent});
  add_benchmark("tool", measure_tool);
  table.add(Row{"whole tool, default run: time",
                "3 x (capture + 20 ms) + 50 ms",
                {{"tool", "share", ""}},
                at_most(1)});
  table.add(Absolute{"whole tool, default run", "tool", "seconds", 1, "s"});
}

}  // namespace orvo::benchmarks
