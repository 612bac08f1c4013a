#include "orvo/simulator/call.h"

#include <algorithm>

namespace orvo::simulator {
namespace {

/// The number of the calling thread, from 1 in the order of first calls.
std::size_t thread_number(std::vector<std::thread::id>& threads) {
  const auto found = std::find(threads.begin(), threads.end(), std::this_thread::get_id());
  if (found != threads.end()) return static_cast<std::size_t>(found - threads.begin()) + 1;
  threads.push_back(std::this_thread::get_id());
  return threads.size();
}

}  // namespace

Call::Call(Operation operation) : driver_(Driver::instance()), lock_(driver_.mutex) {
  const bool begins = operation == Operation::discover || operation == Operation::open ||
                      operation == Operation::open_serial || driver_.threads.empty();
  if (begins) driver_.load_settings();
  const std::uint64_t number = ++driver_.calls[static_cast<std::size_t>(operation)];
  const std::size_t thread = thread_number(driver_.threads);
  label_ = std::string(info(operation).name) + " k=" + std::to_string(number) +
           " thread=" + std::to_string(thread);
  for (const Failure& failure : driver_.settings().failures) {
    const bool due = failure.always ? number >= failure.call : number == failure.call;
    if (failure.operation == operation && due) failure_ = &failure;
  }
  misuse_if(thread != 1 && operation != Operation::status_string, "called from a second thread");
}

Call::~Call() { driver_.ledger.call(label_ + notes_); }

void Call::misuse_if(bool wrong, const char* what) {
  if (wrong) driver_.ledger.misuse(label_ + ": " + what);
}

void Call::note(const char* name, const std::string& value) {
  notes_ += std::string(" ") + name + "=" + value;
}

Outcome Call::result(Outcome outcome) {
  if (failure_ == nullptr) return outcome;
  return {failure_->status, failure_->detail};
}

ot_status Call::finish(ot_status status) {
  note("status", std::to_string(status));
  if (failure_ != nullptr)
    notes_ += failure_->effect ? " commanded after its effect" : " commanded";
  return status;
}

}  // namespace orvo::simulator
