#include "orvo/verification/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace orvo::verification {

void occupy_standard_descriptors() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/null", O_RDWR);  // gets the lowest number that is free
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    close(descriptor);
  }
}

}  // namespace orvo::verification
