#include "orvo/simulator/ledger.h"

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

}  // namespace orvo::simulator
