#include "orvo/verification/interruption.h"

#include <atomic>

namespace orvo::verification {
namespace {

// The handler may run on any thread.
std::atomic<int> noted_signal = 0;
static_assert(std::atomic<int>::is_always_lock_free, "or a handler must not touch it");

void end_by(int signal) {
  std::signal(signal, SIG_DFL);
  std::raise(signal);  // in that signal's handler: takes effect when it returns
}

void note(int signal) {
  if (noted_signal != 0) {
    end_by(signal);
  }
  noted_signal = signal;
}

}  // namespace

HandledSignal::HandledSignal(int signal, void (*handler)(int)) : signal_(signal) {
  sigaction(signal, nullptr, &before_);
  if (before_.sa_handler == SIG_IGN) {
    return;
  }
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;  // no write of a recording or a report is cut short
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

HandledSignal::~HandledSignal() { sigaction(signal_, &before_, nullptr); }

InterruptionWatch::InterruptionWatch()
    : interrupt_(SIGINT, note), termination_(SIGTERM, note), hangup_(SIGHUP, note) {}

bool interrupted() { return noted_signal != 0; }

void end_if_interrupted() {
  if (noted_signal != 0) {
    end_by(noted_signal);
  }
}

}  // namespace orvo::verification
