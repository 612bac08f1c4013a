#include "orvo/verification/interruption.h"

#include <atomic>
#include <chrono>

namespace orvo::verification {
namespace {

using Clock = std::chrono::steady_clock;

// Longer than timeout(1) takes between its two signals, shorter than a key takes to repeat.
constexpr Clock::duration kOnePress = std::chrono::milliseconds(50);

std::atomic<int> noted_signal = 0;
std::atomic<Clock::rep> first_interrupt = 0;  // of the clock; 0: none
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<Clock::rep>::is_always_lock_free,
              "or a handler must not touch them");

void end_by(int signal) {
  std::signal(signal, SIG_DFL);
  std::raise(signal);  // in that signal's handler: takes effect when it returns
}

void note(int signal) {
  int none = 0;
  noted_signal.compare_exchange_strong(none, signal);
  if (signal != SIGINT) {
    return;
  }
  const Clock::rep now = Clock::now().time_since_epoch().count();
  Clock::rep first = 0;
  if (!first_interrupt.compare_exchange_strong(first, now) && now - first >= kOnePress.count()) {
    end_by(signal);
  }
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
