// The protocol ledger: one line a call, and a line that begins with "misuse" for each breach of
// the protocol. Every line is in the file before the call returns, however the process ends.
//
// Threads: a ledger belongs to one thread at a time. Errors: the first failing write ends the
// ledger and is reported on standard error.
#pragma once

#include <fstream>
#include <string>

namespace orvo::simulator {

class Ledger {
 public:
  /// Begins a new file, or goes on with the one that is open already; "" records nothing. Returns
  /// whether that worked.
  [[nodiscard]] bool open(const std::string& path);

  void call(const std::string& line) { write(line); }

  void misuse(const std::string& line) {
    ++misuses_;
    write("misuse " + line);
  }

  /// The last line, which tells an orderly end from any other.
  void end() { write("end misuses=" + std::to_string(misuses_)); }

 private:
  void write(const std::string& line);

  std::ofstream file_;
  std::string path_;
  unsigned misuses_ = 0;
};

}  // namespace orvo::simulator
