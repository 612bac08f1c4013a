#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <iostream>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "orvo/inspection/commands.h"
#include "orvo/inspection/output_file.h"
#include "orvo/inspection/run_directory.h"

namespace orvo::inspection {
namespace {

constexpr const char* kJsonHelp = "One JSON document instead of lines";
constexpr std::uint64_t kMaxChunkBytes = 1 << 30;  // decoded, about eight times as much in memory

/// Decimal, as it stands: the library takes 010 for 8 and what is too large for the largest.
template <typename Integer>
CLI::Validator integer(Integer min = std::numeric_limits<Integer>::min(),
                       Integer max = std::numeric_limits<Integer>::max()) {
  return {[=](std::string& text) {
            Integer number = 0;
            const auto [end, error] =
                std::from_chars(text.data(), text.data() + text.size(), number);
            if (error != std::errc() || end != text.data() + text.size() || number < min ||
                number > max) {
              return fmt::format("'{}' is not an integer from {} to {}", text, min, max);
            }
            text = std::to_string(number);
            return std::string();
          },
          ""};
}

/// The library's ranges let NaN pass.
CLI::Validator number_from(double min, const char* wanted) {
  return {[=](const std::string& text) {
            double number = 0;
            const bool fits = CLI::detail::lexical_cast(text, number) && number >= min;
            return fits ? std::string() : fmt::format("'{}' is not {}", text, wanted);
          },
          ""};
}

/// What is foreign in it is escaped with the rest of an error's words.
std::string quoted(const std::filesystem::path& path) { return '\'' + path.string() + '\''; }

template <typename Value>
CLI::Option* add(CLI::App* command, const char* names, Value& value, const char* type,
                 const char* help) {
  return command->add_option(names, value, help)->type_name(type);
}

/// Channels 0 to 3 as a mask.
template <typename Mask>
void add_channels(CLI::App* command, Mask& mask, const char* help) {
  const auto set = [&mask](const std::vector<unsigned>& channels) {
    unsigned bits = 0;
    for (const unsigned channel : channels) {
      bits |= 1U << channel;
    }
    mask = static_cast<std::uint8_t>(bits);
  };
  command->add_option_function<std::vector<unsigned>>("--channels,--channel", set, help)
      ->type_name("N[,N]")
      ->transform(integer(0U, 3U))
      ->delimiter(',')
      ->allow_extra_args(false);
}

/// An empty name, such as that of an unset variable in a shell, is no name.
CLI::Option* add_output(CLI::App* command, const char* names, std::filesystem::path& output,
                        const char* help) {
  return add(command, names, output, "FILE", help)
      ->check(CLI::Validator(
          [](std::string& text) { return std::string(text.empty() ? "the name is empty" : ""); },
          ""));
}

void add_info(CLI::App& program, InfoOptions& options) {
  CLI::App* const command =
      program.add_subcommand("info", "Header, sizes, channels and locks of stream files");
  add(command, "PATH", options.paths, "", "Stream files (.ortime) and runs")->required();
  command->add_flag("--json", options.json, kJsonHelp);
  command->footer("Example: ortime info overflow_frequency_01.ortime");
}

struct TagsWords {
  TagsOptions options;
  std::string format;
};

TagFormat format_of(const TagsWords& words) {
  std::string ending = words.options.output.extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const bool is_known = ending == ".csv" || ending == ".npy";
  if (is_known ? !words.format.empty() && ending != '.' + words.format
               : !ending.empty() && words.format.empty()) {
    throw CLI::ValidationError(
        quoted(words.options.output),
        is_known ? "does not match --format" : "ends neither in .csv nor in .npy: add --format");
  }
  return ending == ".npy" || words.format == "npy" ? TagFormat::npy : TagFormat::csv;
}

/// What the words mean together.
TagsOptions meant_by(const TagsWords& words) {
  TagsOptions options = words.options;
  options.format = format_of(words);
  if (options.format == TagFormat::npy && options.output == "-") {
    throw CLI::ValidationError("--format", "npy needs a file: add -o FILE.npy");
  }
  timing::TagFilter& wanted = options.wanted;
  if (wanted.from_ps && wanted.to_ps && *wanted.from_ps >= *wanted.to_ps) {
    throw CLI::ValidationError("--to-ps", "must be greater than --from-ps");
  }
  if (options.run != 0 && !names_run(options.path)) {
    throw CLI::ValidationError("--run", "needs a run directory instead of a stream file");
  }
  return options;
}

void add_tags(CLI::App& program, TagsWords& words) {
  TagsOptions& options = words.options;
  CLI::App* const command =
      program.add_subcommand("tags", "The timestamps of a recording, in decoding order");
  add(command, "PATH", options.path, "", "Stream file, - for standard input, or a run")->required();
  add(command, "--run", options.run, "N", "Recording N of a run of several, from 1 on")
      ->transform(integer<std::uint64_t>(1));
  add(command, "--format", words.format, "csv|npy", "[as the output's name ends, else csv]")
      ->check(CLI::IsMember({"csv", "npy"}));
  add_output(command, "-o,--output", options.output, "[-, standard output]; npy: a file");
  add_channels(command, options.wanted.channel_mask, "Only these channels, 0 to 3");
  add(command, "--from-ps", options.wanted.from_ps, "T", "Only times of T picoseconds or more")
      ->transform(integer<std::int64_t>());
  add(command, "--to-ps", options.wanted.to_ps, "T", "Only times below T picoseconds")
      ->transform(integer<std::int64_t>());
  command->footer("Example: ortime tags --channel 0,2 -o tags.npy overflow_frequency_01.ortime");
}

/// A missing file is left to whoever opens it.
void require_rate_of_file(const VerifyOptions& options) {
  std::error_code error;
  const bool has_rate = options.divider || options.requested_hz;
  const bool is_there = options.path == "-" || std::filesystem::exists(options.path, error);
  if (names_run(options.path) ? has_rate : is_there && !has_rate) {
    throw CLI::ValidationError(
        quoted(options.path),
        has_rate ? "is a run, whose report holds the rates: leave out --divider and "
                   "--requested-hz, or name one stream file"
                 : "is a stream file, which does not hold its rate: add --divider or "
                   "--requested-hz, or name its run directory");
  }
}

void add_settings(CLI::App* command, GivenSettings& given) {
  add(command, "--tolerance-ppm", given.tolerance_ppm, "X",
      "Largest rate error that passes [the report's, or 25]")
      ->check(number_from(0, "a number of at least 0"));
  add(command, "--min-tags-per-channel", given.min_tags_per_channel, "N",
      "Fewest timestamps that pass; in no report [64]")
      ->transform(integer<std::uint64_t>());
}

void add_verify(CLI::App& program, VerifyOptions& options) {
  CLI::App* const command = program.add_subcommand(
      "verify",
      "The verdict again, from the recordings: status 0 for a pass, 2 for a\n"
      "fail, 3 where recordings and report disagree");
  add(command, "PATH", options.path, "", "A run, a stream file, or - for standard input")
      ->required();
  CLI::Option* const divider =
      add(command, "--divider", options.divider, "N", "Stream file: of the calibration source")
          ->transform(integer<std::uint32_t>(1));
  add(command, "--requested-hz", options.requested_hz, "F",
      "Stream file: stands for the divider nearest to it")
      ->check(number_from(std::numeric_limits<double>::denorm_min(), "a number greater than 0"))
      ->excludes(divider);
  add_settings(command, options.given);
  add_channels(command, options.given.channel_mask, "Only these count [as recorded]");
  command->add_flag("--json", options.json, kJsonHelp);
  command->footer("Example: ortime verify logs/verification/overflow_frequency/20261124_160312");
}

void add_report(CLI::App& program, ReportOptions& options) {
  CLI::App* const command =
      program.add_subcommand("report", "One self-contained HTML page for a run");
  add(command, "RUN", options.path, "", "A run")->required();
  add_output(command, "-o,--output", options.output, "The page; - for standard output");
  add_output(command, "--json", options.json, "What the page shows, as data");
  add(command, "--title", options.title, "TEXT", "Such as which instrument, which bench");
  add_settings(command, options.given);
  command->footer("Example: ortime report -o report.html logs/verification/overflow_frequency");
}

void require_output(const ReportOptions& options) {
  if (options.output.empty() && options.json.empty()) {
    throw CLI::RequiredError("--output or --json");
  }
  if (!options.output.empty() && !options.json.empty() &&
      same_output(options.output, options.json)) {
    throw CLI::ValidationError("--json", "needs a file of its own");
  }
}

/// Says what is wrong with the command line, and where to look.
int explained(const CLI::App& program, const CLI::ParseError& error, std::string_view first) {
  const auto commands = program.get_subcommands();
  std::string what = error.what();
  if (commands.empty() && !first.empty() && first.front() != '-') {
    what = fmt::format("'{}' is no command; there are info, tags, verify and report", first);
  } else if (commands.empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    what = "a command is missing";
  }
  what = fmt::format("{:?}", what);  // parts of it are of unknown origin
  std::cerr << "ortime: " << what.substr(1, what.size() - 2) << "\nTry 'ortime "
            << (commands.empty() ? "" : commands.front()->get_name() + ' ') << "--help'.\n";
  return kExitUsage;
}

/// As the library takes them, the last first; option names with '_' as with '-'.
std::vector<std::string> words_of(int argc, const char* const* argv) {
  std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  for (auto word = words.begin(); word != words.end() && *word != "--"; ++word) {
    if (word->starts_with("--")) {
      std::replace(word->begin(), std::find(word->begin(), word->end(), '='), '_', '-');
    }
  }
  std::reverse(words.begin(), words.end());
  return words;
}

}  // namespace

void say(const std::string& words) {
  if (!words.empty()) {
    std::cerr << "ortime: " << words << std::endl;
  }
}

RunDirectory opened(const std::filesystem::path& path) {
  RunDirectory dir = load_run(path);
  for (const std::string& note : dir.notes) {
    say(note);
  }
  return dir;
}

Command parse_command_line(int argc, const char* const* argv) {
  CLI::App program("Looks into what ot_verify_overflow_frequency has recorded, offline.", "ortime");
  program.set_version_flag("--version", "ortime " ORVO_VERSION, "Print the version and exit");
  program.require_subcommand(1);
  program.fallthrough();
  std::uint64_t chunk_bytes = 1 << 20;
  add(&program, "--chunk-bytes", chunk_bytes, "N", "Payload bytes read at a time [1048576]")
      ->transform(integer<std::uint64_t>(1, kMaxChunkBytes));
  program.footer(
      "A run is a run directory, its JSON report, latest.json, or an output root for its newest "
      "run.\n"
      "Exit status: 0 success; 1 an error; 2 verify: a run failed; 3 verify: recordings and "
      "report\n"
      "disagree; 64 wrong usage. 'ortime COMMAND --help' shows the options of a command.");
  program.get_formatter()->label("SUBCOMMAND", "COMMAND");
  InfoOptions info;
  TagsWords tags;
  VerifyOptions verify;
  ReportOptions report;
  add_info(program, info);
  add_tags(program, tags);
  add_verify(program, verify);
  add_report(program, report);
  for (CLI::App* const command : program.get_subcommands({})) {
    command->group("Commands");
  }
  try {
    program.parse(words_of(argc, argv));
    info.chunk_bytes = tags.options.chunk_bytes = verify.chunk_bytes = report.chunk_bytes =
        chunk_bytes;
    if (program.got_subcommand("info")) {
      return info;
    }
    if (program.got_subcommand("tags")) {
      return meant_by(tags);
    }
    if (program.got_subcommand("verify")) {
      require_rate_of_file(verify);
      return verify;
    }
    require_output(report);
    return report;
  } catch (const CLI::Success& shown) {  // help or version
    return program.exit(shown, std::cout, std::cerr);
  } catch (const CLI::ParseError& error) {
    return explained(program, error, argc > 1 ? argv[1] : "");
  }
}

}  // namespace orvo::inspection
