// How the tool's process ends.
#pragma once

namespace orvo::verification {

enum ExitStatus : int {
  kExitPassed = 0,  // every run passed, or help was asked for
  kExitError = 1,
  kExitFailed = 2,  // everything was measured and reported, and some run did not pass
  kExitInvalidConfiguration = 64,
};

}  // namespace orvo::verification
