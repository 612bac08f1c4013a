#include "support/tool_runner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <numeric>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include "support/scratch.h"

namespace orvo::tests {
namespace {

std::vector<char*> pointers(Texts& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

Texts environment_with(const Texts& additions) {
  Texts result;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!std::string_view(*variable).starts_with("ORVO_")) result.emplace_back(*variable);
  }
  result.insert(result.end(), additions.begin(), additions.end());
  return result;
}

bool redirect(int descriptor, const char* path) {
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  return file >= 0 && dup2(file, descriptor) >= 0;
}

int wait_for(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) < 0) {
    throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

ToolResult run_tool(const std::filesystem::path& directory, const ToolCall& call) {
  const ScratchDirectory captured;
  const std::string out = captured.file("out");
  const std::string err = captured.file("err");
  Texts arguments = call.arguments;
  arguments.insert(arguments.begin(), call.program);
  Texts environment = environment_with(call.environment);
  const std::vector<char*> argv = pointers(arguments);
  const std::vector<char*> envp = pointers(environment);

  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    constexpr int kCannotRun = 127;
    if (chdir(directory.c_str()) == 0 && redirect(STDOUT_FILENO, out.c_str()) &&
        redirect(STDERR_FILENO, err.c_str())) {
      execve(ORVO_TOOL, argv.data(), envp.data());
    }
    _exit(kCannotRun);
  }
  const int status = wait_for(child);
  return {status, read_file(out), read_file(err)};
}

std::string lines_with(const std::string& text, const std::string& start) {
  std::istringstream stream(text);
  std::string found;
  for (std::string line; std::getline(stream, line);) {
    if (line.starts_with(start)) found += line + '\n';
  }
  return found;
}

std::filesystem::path run_dir_of(const ToolResult& result) {
  const std::string line = lines_with(result.out, "Output: ");
  return line.empty() ? "" : line.substr(8, line.size() - 9);
}

std::string names_in(const std::filesystem::path& directory) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.insert(entry.path().filename().string() + ' ');
  }
  return std::accumulate(names.begin(), names.end(), std::string());
}

}  // namespace orvo::tests
