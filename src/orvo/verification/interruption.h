// Ctrl-C, SIGTERM and a closed terminal: the work at hand is abandoned in good order (the stream
// stopped, the recording closed, the instrument released) and the process then ends by the signal,
// as a shell expects.
//
// Threads: the main thread's. One InterruptionWatch at a time.
#pragma once

namespace orvo::verification {

/// While one lives, a first SIGINT, SIGTERM or SIGHUP is noted and a second one ends the process at
/// once. A signal that was ignored before stays ignored. A closed console no longer ends the
/// process: the reports tell the verdict.
class InterruptionWatch {
 public:
  InterruptionWatch();
  ~InterruptionWatch();
  InterruptionWatch(const InterruptionWatch&) = delete;
  InterruptionWatch& operator=(const InterruptionWatch&) = delete;
};

/// Whether such a signal has come.
[[nodiscard]] bool interrupted();

/// Ends the process by the signal that has come, if one has.
void end_if_interrupted();

}  // namespace orvo::verification
