#include "orvo/verification/source_dir.h"

#include <sys/auxv.h>

namespace orvo::verification {
namespace {

/// The folder of the running program, links resolved; known also where /proc is not mounted.
std::filesystem::path program_dir() {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel hands out addresses as numbers.
  const auto* const path = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
  return std::filesystem::weakly_canonical(path == nullptr ? "" : path).parent_path();
}

}  // namespace

std::filesystem::path source_dir() {
  const std::filesystem::path fixed = ORVO_SOURCE_DIR;
  return fixed.is_absolute() ? fixed : (program_dir() / fixed).lexically_normal();
}

}  // namespace orvo::verification
