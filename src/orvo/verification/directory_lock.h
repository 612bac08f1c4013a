// Instances of the tool that share a folder take turns.
#pragma once

#include <chrono>
#include <filesystem>

namespace orvo::verification {

/// Waits until nobody else holds `directory`, then holds it until destroyed, or until the process
/// ends. Advisory: only programs that ask for the lock are kept out. After `longest_wait`, and
/// where a folder cannot be locked, such as on a file system without locks, it is used as it is.
/// A wait of more than a second is reported on standard error.
///
/// Threads: belongs to the main thread, like the signals that end its wait.
/// Errors: timing::Interrupted when a signal is noted while it waits.
class DirectoryLock {
 public:
  explicit DirectoryLock(const std::filesystem::path& directory,
                         std::chrono::milliseconds longest_wait = std::chrono::milliseconds::max());
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  int descriptor_;  // negative: could not be opened
};

}  // namespace orvo::verification
