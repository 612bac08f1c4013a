// Signals: Ctrl-C, SIGTERM and a closed terminal end the work at hand in good order (the stream is
// stopped, the recording closed, the instrument released), and then the process, by that signal, as
// a shell expects. Signals about writes become failed writes.
//
// Threads: all of this belongs to the main thread; a signal may arrive on any.
#pragma once

#include <csignal>

namespace orvo::verification {

/// While one lives, `signal` is handled by `handler`, unless it was ignored before. Its destructor
/// restores what was before, so nested ones end in the reverse order.
class HandledSignal {
 public:
  HandledSignal(int signal, void (*handler)(int));
  ~HandledSignal();
  HandledSignal(const HandledSignal&) = delete;
  HandledSignal& operator=(const HandledSignal&) = delete;

 private:
  const int signal_;
  struct sigaction before_ = {};
};

/// While one lives, SIGINT, SIGTERM and SIGHUP are only noted, however often they come: a shell and
/// the kernel both report a closed terminal, and timeout(1) sends its signal twice. Only a second
/// SIGINT ends the process at once, with the stream running. It counts only 50 ms or more after the
/// first, so that it is a person's second Ctrl-C.
class InterruptionWatch {
 public:
  InterruptionWatch();

 private:
  HandledSignal interrupt_;
  HandledSignal termination_;
  HandledSignal hangup_;
};

/// While one lives, a write to a closed pipe or beyond the limit of a file's size fails like any
/// other, instead of ending the process.
struct FailingWrites {
  HandledSignal closed_pipe{SIGPIPE, SIG_IGN};
  HandledSignal file_size_limit{SIGXFSZ, SIG_IGN};
};

/// Whether a signal has been noted since the process started.
[[nodiscard]] bool interrupted();

/// Ends the process by the first signal that was noted, flushing nothing; returns if there is none.
void end_if_interrupted();

}  // namespace orvo::verification
