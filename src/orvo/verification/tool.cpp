#include "orvo/verification/tool.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "orvo/timing/error.h"
#include "orvo/verification/config.h"
#include "orvo/verification/directory_lock.h"
#include "orvo/verification/interruption.h"
#include "orvo/verification/sequence.h"
#include "orvo/verification/standard_descriptors.h"

namespace orvo::verification {
namespace {

constexpr std::string_view kHelpText =
    "ot_verify_overflow_frequency\n"
    "\n"
    "Verify packed-delta timestamp reconstruction over several internal-source\n"
    "frequencies. By default this is a conservative smoke gate; override the\n"
    "frequency list for stress tests.\n"
    "\n"
    "Config/CLI keys:\n"
    "  frequencies_hz=1000,10000,100000\n"
    "  capture_s=0.35\n"
    "  tolerance_ppm=25\n"
    "  output_root=QPM-3/logs/verification/overflow_frequency\n"
    "\n"
    "CLI examples:\n"
    "  ot_verify_overflow_frequency\n"
    "  ot_verify_overflow_frequency --frequencies-hz=1000,10000,100000\n"
    "  ot_verify_overflow_frequency --frequencies-hz=1000000,2000000 --tolerance-ppm=10000\n";
static_assert(kHelpText.size() == 553);

constexpr std::array<std::string_view, 4> kHelpWords = {"--help", "-h", "/?", "-?"};

bool asks_for_help(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::find(kHelpWords.begin(), kHelpWords.end(), argv[i]) != kHelpWords.end()) {
      return true;
    }
  }
  return false;
}

/// "--key=value" or "key=value", with '-' for '_' in the key; anything else is passed over.
void apply_argument(Config& config, std::string_view argument) {
  if (argument.starts_with("--")) {
    argument.remove_prefix(2);
  }
  const std::size_t equals = argument.find('=');
  if (equals == std::string_view::npos) {
    return;
  }
  std::string key(argument.substr(0, equals));
  std::replace(key.begin(), key.end(), '-', '_');
  apply_config_line(config, std::move(key), std::string(argument.substr(equals + 1)));
}

/// Local time, such as 20261116_184824.
std::string start_stamp() {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  localtime_r(&now, &local);
  std::array<char, 32> text;
  return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%d_%H%M%S", &local)};
}

int configure_and_verify(int argc, char** argv, const ToolFolders& folders) {
  if (asks_for_help(argc, argv)) {
    std::cout << kHelpText;
    return kExitPassed;
  }
  Config config;
  const std::optional<std::filesystem::path> config_file =
      apply_first_config_file(config, config_candidates(argv, folders.source_dir));
  for (int i = 1; i < argc; ++i) {
    apply_argument(config, argv[i]);
  }
  if (!is_valid(config)) {
    std::cerr << "invalid overflow_frequency configuration\n";
    return kExitInvalidConfiguration;
  }

  const std::filesystem::path root =
      std::filesystem::absolute(config.output_root.value_or(folders.default_output_root));
  const std::filesystem::path run_dir = root / start_stamp();
  std::filesystem::create_directories(run_dir);
  // A second start in the same second overwrites the results of the first, not its recordings
  // while they are judged.
  const DirectoryLock one_start_at_a_time(run_dir);
  if (config_file) {
    std::cout << "Config: " << config_file->string() << '\n';
  }
  std::cout << "Output: " << run_dir.string() << '\n';
  return run_verification(config, root, run_dir);
}

}  // namespace

int run_tool(int argc, char** argv, const ToolFolders& folders) {
  occupy_standard_descriptors(O_RDWR);
  const FailingWrites failing_writes;
  int status = kExitError;
  try {
    status = configure_and_verify(argc, argv, folders);
  } catch (const timing::Interrupted&) {
    // No failure of its own: end_if_interrupted() says what happened.
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
  }
  std::cout.flush();  // while SIGPIPE is still ignored
  end_if_interrupted();
  return status;
}

}  // namespace orvo::verification
