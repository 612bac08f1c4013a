// The tool as it is installed: it finds its settings file from where it lies itself, so that the
// installation can be moved, and puts results below the working directory.
#include <sys/auxv.h>

#include <system_error>

#include "orvo/verification/tool.h"

namespace {

/// The folder of the running program, links resolved; known also where /proc is not mounted.
std::filesystem::path program_dir() {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel hands out addresses as numbers.
  const auto* const path = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
  std::error_code error;
  return std::filesystem::weakly_canonical(path == nullptr ? "" : path, error).parent_path();
}

}  // namespace

int main(int argc, char** argv) {
  return orvo::verification::run_tool(argc, argv,
                                      {(program_dir() / ORVO_DATA_FROM_PROGRAMS).lexically_normal(),
                                       "logs/verification/overflow_frequency"});
}
