#include "orvo/verification/directory_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <thread>

#include "orvo/timing/error.h"
#include "orvo/verification/interruption.h"

namespace orvo::verification {

DirectoryLock::DirectoryLock(const std::filesystem::path& directory,
                             std::chrono::milliseconds longest_wait)
    : descriptor_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  // Asked again and again, because a call that waits goes on waiting after a noted signal.
  constexpr std::chrono::milliseconds kPause{10};
  constexpr std::chrono::milliseconds kSilence{1000};
  for (std::chrono::milliseconds waited{0};
       descriptor_ >= 0 && waited < longest_wait && flock(descriptor_, LOCK_EX | LOCK_NB) != 0 &&
       errno == EWOULDBLOCK;
       waited += kPause) {
    if (interrupted()) {
      close(descriptor_);
      throw timing::Interrupted();
    }
    if (waited == kSilence) {
      std::cerr << "waiting for another program that uses " << directory.string() << '\n';
    }
    std::this_thread::sleep_for(kPause);
  }
}

DirectoryLock::~DirectoryLock() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

}  // namespace orvo::verification
