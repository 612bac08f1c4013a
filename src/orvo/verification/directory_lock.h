// Starts of the tool that share a folder take turns.
#pragma once

#include <filesystem>

namespace orvo::verification {

/// Waits until no other process holds `directory`, then holds it until destroyed, or until the
/// process ends. Advisory: it keeps out other starts of the tool alone. A folder that cannot be
/// locked, such as one on a file system without locks, is used as it is.
///
/// Errors: timing::Interrupted when a signal is noted while it waits.
class DirectoryLock {
 public:
  explicit DirectoryLock(const std::filesystem::path& directory);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  int descriptor_;  // negative: could not be opened
};

}  // namespace orvo::verification
