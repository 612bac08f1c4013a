#include "orvo/verification/config_file.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <istream>
#include <string>
#include <system_error>

namespace orvo::verification {
namespace {

constexpr const char* kFileName = "ot_verify_overflow_frequency.ini";

/// The program's folder as its first argument tells it; links and the search path stay unresolved.
std::filesystem::path program_dir(const char* program, const std::filesystem::path& working_dir) {
  std::error_code error;
  const std::filesystem::path absolute =
      std::filesystem::absolute(program == nullptr ? "" : program, error);
  return !error && absolute.has_parent_path() ? absolute.parent_path() : working_dir;
}

void apply_config_lines(Config& config, std::istream& lines) {
  for (std::string line; std::getline(lines, line);) {
    line.resize(std::min(line.find('#'), line.size()));
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
      apply_config_line(config, line.substr(0, equals), line.substr(equals + 1));
    }
  }
}

}  // namespace

std::vector<std::filesystem::path> config_candidates(char** argv,
                                                     const std::filesystem::path& source_dir) {
  const std::filesystem::path working_dir = std::filesystem::current_path();
  return {program_dir(argv[0], working_dir) / kFileName, working_dir / kFileName,
          source_dir / "verification" / kFileName};
}

std::optional<std::filesystem::path> apply_first_config_file(
    Config& config, const std::vector<std::filesystem::path>& candidates) {
  for (const std::filesystem::path& path : candidates) {
    if (std::ifstream file(path); file.is_open()) {
      apply_config_lines(config, file);
      return path;
    }
  }
  return std::nullopt;
}

}  // namespace orvo::verification
