#include "orvo/simulator/ledger.h"

#include <cstdio>

namespace orvo::simulator {

bool Ledger::open(const std::string& path) {
  if (path == path_) return true;
  file_.close();
  file_.clear();
  path_ = path;
  misuses_ = 0;
  if (path.empty()) return true;
  file_.open(path);
  if (file_.is_open()) return true;
  path_.clear();
  return false;
}

void Ledger::write(const std::string& line) {
  if (!file_.is_open() || file_ << line << std::endl) return;
  std::fprintf(stderr, "ORVO_SIM: cannot write the ledger '%s', which ends here\n", path_.c_str());
  file_.close();
}

}  // namespace orvo::simulator
