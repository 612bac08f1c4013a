#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <variant>

#include "orvo/inspection/commands.h"
#include "orvo/verification/standard_descriptors.h"

namespace {

namespace inspection = orvo::inspection;

/// Of a command line that has been answered already.
int run(int status) { return status; }

int with_results_written(int status) {
  std::cout.flush();
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && std::cout) {
    return status;
  }
  std::cerr << "ortime: cannot write standard output\n";
  return inspection::kExitError;
}

}  // namespace

int main(int argc, char** argv) {
  orvo::verification::occupy_standard_descriptors(O_RDONLY);  // results for nobody: an error
  std::signal(SIGPIPE, SIG_DFL);  // whoever started us may ignore it: end quietly all the same
  std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of the write
  try {
    return with_results_written(std::visit([](const auto& command) { return run(command); },
                                           inspection::parse_command_line(argc, argv)));
  } catch (const std::exception& error) {
    std::cout.flush();
    std::cerr << "ortime: " << error.what() << '\n';
    return inspection::kExitError;
  }
}
