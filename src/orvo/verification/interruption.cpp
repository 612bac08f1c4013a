#include "orvo/verification/interruption.h"

#include <atomic>
#include <csignal>
#include <iostream>

namespace orvo::verification {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// The handler may run on any thread.
std::atomic<int> noted_signal = 0;
static_assert(std::atomic<int>::is_always_lock_free, "or a handler must not touch it");

void by_default(int signal) { std::signal(signal, SIG_DFL); }

void note(int signal) {
  if (noted_signal != 0) {
    by_default(signal);
    std::raise(signal);  // takes effect when the handler returns
  }
  noted_signal = signal;
}

bool is_ignored(int signal) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

InterruptionWatch::InterruptionWatch() {
  struct sigaction action = {};
  action.sa_handler = note;
  action.sa_flags = SA_RESTART;  // no write of a recording or a report is cut short
  sigemptyset(&action.sa_mask);
  for (const int signal : kSignals) {
    if (!is_ignored(signal)) {
      sigaction(signal, &action, nullptr);
    }
  }
  std::signal(SIGPIPE, SIG_IGN);
}

InterruptionWatch::~InterruptionWatch() {
  for (const int signal : kSignals) {
    if (!is_ignored(signal)) {
      by_default(signal);
    }
  }
}

bool interrupted() { return noted_signal != 0; }

void end_if_interrupted() {
  if (noted_signal != 0) {
    std::cout.flush();
    by_default(noted_signal);
    std::raise(noted_signal);
  }
}

}  // namespace orvo::verification
