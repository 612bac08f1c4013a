// What a program does about standard descriptors that it was started without.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace orvo::verification {

/// Opens /dev/null on every closed descriptor 0 to 2, so that no file opened later receives console
/// output. `access`: O_RDWR, or O_RDONLY where output that nobody receives is to be an error. Call
/// once, before any other thread runs.
inline void occupy_standard_descriptors(int access) {
  int descriptor = -1;
  do {
    descriptor = open("/dev/null", access);  // gets the lowest number that is free
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    close(descriptor);
  }
}

}  // namespace orvo::verification
