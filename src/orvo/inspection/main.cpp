#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <variant>

#include "orvo/inspection/commands.h"

namespace {

namespace inspection = orvo::inspection;

/// Of a command line that has been answered already.
int run(int status) { return status; }

/// No file opened later becomes a closed standard output or error. Not writable, so that results
/// for nobody are an error.
void occupy_standard_descriptors() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/null", O_RDONLY);  // gets the lowest number that is free
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) {
    close(descriptor);
  }
}

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
  occupy_standard_descriptors();
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
