#include "orvo/inspection/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvo/inspection/exit_status.h"
#include "orvo/inspection/printable_text.h"

namespace orvo::inspection {
namespace {

constexpr std::uint64_t kMaxChunkBytes = 1 << 30;  // decoded, some eight times as much in memory
constexpr double kSmallestPositive = std::numeric_limits<double>::denorm_min();

/// `text` has to be a number from `min` to `max` and nothing else, with 0x or 0b in front where
/// `prefixes` says so. The library's own conversions let pass what does not fit and read 010 as 8,
/// so they get the number in a form in which they cannot go wrong.
template <typename Number>
CLI::Validator number_from(Number min, Number max, const std::string& wanted,
                           bool prefixes = false) {
  const auto check = [=](std::string& text) {
    std::string_view digits = text;
    int base = 10;
    for (const auto& [prefix, its_base] :
         {std::pair("0x", 16), std::pair("0X", 16), std::pair("0b", 2), std::pair("0B", 2)}) {
      if (prefixes && digits.starts_with(prefix)) {
        base = its_base;
      }
    }
    digits.remove_prefix(base == 10 ? 0 : 2);
    Number number = 0;
    const char* const end = digits.data() + digits.size();
    std::from_chars_result result = {};
    if constexpr (std::is_floating_point_v<Number>) {
      result = std::from_chars(digits.data(), end, number);
    } else {
      result = std::from_chars(digits.data(), end, number, base);
    }
    if (result.ec != std::errc() || result.ptr != end || !(number >= min && number <= max)) {
      return fmt::format("'{}' is not {}", printable(text), wanted);
    }
    text = fmt::format(std::is_floating_point_v<Number> ? "{:.17g}" : "{}", number);
    return std::string();
  };
  return {check, ""};
}

template <typename Number>
CLI::Validator integer_from(Number min, Number max = std::numeric_limits<Number>::max()) {
  return number_from<Number>(min, max, fmt::format("an integer from {} to {}", min, max));
}

CLI::Validator real_from(double min, const std::string& wanted) {
  return number_from(min, std::numeric_limits<double>::max(), wanted);
}

template <typename Value>
CLI::Option* add(CLI::App* command, const char* names, Value& value, const char* type,
                 const char* help) {
  return command->add_option(names, value, help)->type_name(type);
}

/// An empty name, such as that of an unset variable in a shell, is not for standard output.
CLI::Option* add_output(CLI::App* command, std::filesystem::path& output, const char* help) {
  return add(command, "-o,--output", output, "FILE", help)
      ->check(CLI::Validator(
          [](std::string& text) { return std::string(text.empty() ? "the name is empty" : ""); },
          ""));
}

void add_chunk_bytes(CLI::App* command, std::uint64_t& chunk_bytes) {
  add(command, "--chunk-bytes", chunk_bytes, "N",
      "Payload bytes read at a time [1048576]; what survives of\n"
      "a damaged packed-delta stream depends on it")
      ->transform(integer_from<std::uint64_t>(1, kMaxChunkBytes));
}

void add_info(CLI::App& program, Command& chosen) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* const command =
      program.add_subcommand("info", "Header, sizes, channels and locks of stream files");
  add(command, "FILE", options->files, "",
      "Stream files (.ortime). Those that can be read are shown;\n"
      "with any other the status is 1")
      ->required();
  command->add_flag("--json", options->json, "One JSON document, {\"files\": [...]}");
  add_chunk_bytes(command, options->chunk_bytes);
  command->callback([options, &chosen] { chosen = *options; });
}

std::optional<TagFormat> tag_format_named(const std::string& name) {
  return name == "csv"     ? std::optional(TagFormat::csv)
         : name == "jsonl" ? std::optional(TagFormat::jsonl)
         : name == "npy"   ? std::optional(TagFormat::npy)
                           : std::nullopt;
}

struct TagsWords {
  TagsOptions options;
  std::string format;
  std::vector<unsigned> channels;
};

/// What the words mean together.
TagsOptions meant_by(const TagsWords& words) {
  TagsOptions options = words.options;
  const std::string extension = options.output.extension().string();
  const auto named = extension.empty() ? std::nullopt : tag_format_named(extension.substr(1));
  options.format = tag_format_named(words.format).value_or(named.value_or(TagFormat::csv));
  if (options.format == TagFormat::npy && options.output == "-") {
    throw CLI::ValidationError("--format", "npy needs a file: add -o FILE.npy");
  }
  if (options.from_ps && options.to_ps && *options.from_ps >= *options.to_ps) {
    throw CLI::ValidationError("--to-ps", "must be greater than --from-ps");
  }
  options.channel_mask = words.channels.empty() ? 0x0F : 0;
  for (const unsigned channel : words.channels) {
    options.channel_mask = static_cast<std::uint8_t>(options.channel_mask | 1U << channel);
  }
  return options;
}

void add_tags(CLI::App& program, Command& chosen) {
  const auto words = std::make_shared<TagsWords>();
  TagsOptions& options = words->options;
  CLI::App* const command =
      program.add_subcommand("tags", "The timestamps of a stream file, in decoding order");
  add(command, "FILE", options.file, "", "Stream file (.ortime)")->required();
  add(command, "--format", words->format, "csv|jsonl|npy",
      "csv: lines 'channel,time_ps'; jsonl: a JSON object a\n"
      "line; npy: a NumPy array of records (channel, time_ps),\n"
      "to a file only. By default as the output's name ends:\n"
      ".jsonl, .npy; else csv")
      ->check(CLI::Validator(
          [](std::string& text) {
            return tag_format_named(text)
                       ? std::string()
                       : fmt::format("'{}' is not csv, jsonl or npy", printable(text));
          },
          ""));
  add_output(command, options.output,
             "Output [-, standard output]; a file appears when it\n"
             "is whole");
  add(command, "--channel", words->channels, "N", "Only tags of channel N, 0 to 3; may be repeated")
      ->allow_extra_args(false)
      ->transform(integer_from<unsigned>(0, 3));
  constexpr std::int64_t kFirst = std::numeric_limits<std::int64_t>::min();
  add(command, "--from-ps", options.from_ps, "T", "Only tags at T picoseconds or later")
      ->transform(integer_from<std::int64_t>(kFirst));
  add(command, "--to-ps", options.to_ps, "T", "Only tags before T picoseconds, T itself left out")
      ->transform(integer_from<std::int64_t>(kFirst));
  add_chunk_bytes(command, options.chunk_bytes);
  command->callback([words, &chosen] { chosen = meant_by(*words); });
}

/// A missing file is left to whoever opens it.
void require_rate_of_file(const VerifyOptions& options) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(options.path, error);
  const bool has_rate = options.divider || options.expected_decoded_hz;
  if (std::filesystem::exists(status) && std::filesystem::is_directory(status) == has_rate) {
    throw CLI::ValidationError(
        printable(options.path.string()),
        has_rate ? "is a run directory, whose report tells the rates: leave out --divider and "
                   "--expected-decoded-hz, or name one stream file"
                 : "is a stream file, which does not tell its rate: add --divider or "
                   "--expected-decoded-hz, or name the run directory");
  }
}

void add_verify(CLI::App& program, Command& chosen) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App* const command = program.add_subcommand(
      "verify", "The verdict again, from the recordings: status 0 for a pass, 2 for a fail");
  add(command, "PATH", options->path, "",
      "A stream file, with one of --divider and\n"
      "--expected-decoded-hz, or a run directory, whose report\n"
      "tells them")
      ->required();
  CLI::Option* const divider = add(command, "--divider", options->divider, "N",
                                   "Divider of the calibration source in the recorded run")
                                   ->transform(integer_from<std::uint32_t>(1));
  add(command, "--expected-decoded-hz", options->expected_decoded_hz, "X",
      "Rate that the timestamps must show")
      ->transform(real_from(kSmallestPositive, "a number greater than 0"))
      ->excludes(divider);
  add(command, "--tolerance-ppm", options->tolerance_ppm, "X",
      "Largest accepted rate error of a channel [that of the\n"
      "report, or 25]")
      ->transform(real_from(0, "a number of at least 0"));
  add(command, "--min-tags-per-channel", options->min_tags_per_channel, "N",
      "Fewest timestamps a channel needs to pass [64]")
      ->transform(integer_from<std::uint64_t>(0));
  add(command, "--channel-mask", options->channel_mask, "MASK",
      "Bit c set: channel c counts; 0x0F, 0b1111 or 15; 0 for\n"
      "all four [that of the report or the stream file]")
      ->transform(
          number_from(0U, 0x0FU, "a mask of channels 0 to 3, such as 0x0F, 0b1111 or 15", true));
  add_chunk_bytes(command, options->chunk_bytes);
  command->callback([options, &chosen] {
    require_rate_of_file(*options);
    chosen = *options;
  });
}

void add_report(CLI::App& program, Command& chosen) {
  const auto options = std::make_shared<ReportOptions>();
  CLI::App* const command =
      program.add_subcommand("report", "One self-contained HTML page for a run directory");
  add(command, "RUN_DIR", options->run_dir, "", "Run directory")->required();
  add_output(command, options->output, "The page")->required();
  add_chunk_bytes(command, options->chunk_bytes);
  command->callback([options, &chosen] { chosen = *options; });
}

/// Tells what is wrong with the command line, and where to look.
int explained(const CLI::App& program, const CLI::ParseError& error, const std::string& first) {
  const auto commands = program.get_subcommands();
  if (commands.empty()) {
    const std::string what =
        first.empty() ? "a command is missing" : "'" + printable(first) + "' is no command";
    std::cerr << "ortime: " << what << "; there are info, tags, verify and report\n"
              << "Try 'ortime --help'.\n";
  } else {
    std::cerr << "ortime: " << printable(error.what()) << "\nTry 'ortime "
              << commands.front()->get_name() << " --help'.\n";
  }
  return kExitUsage;
}

}  // namespace

Command parse_command_line(int argc, const char* const* argv) {
  CLI::App program("Looks into what ot_verify_overflow_frequency has recorded, offline.", "ortime");
  program.set_version_flag("--version", "ortime " ORVO_VERSION, "Print the version and exit");
  program.require_subcommand(1);
  program.footer(
      "Exit status: 0 success; 1 an error; 2 verify: a run failed; 64 wrong usage.\n"
      "'ortime COMMAND --help' tells the options of a command.");
  program.get_formatter()->label("SUBCOMMAND", "COMMAND");
  Command chosen = kExitSuccess;
  for (const auto add_command : {add_info, add_tags, add_verify, add_report}) {
    add_command(program, chosen);
  }
  for (CLI::App* const command : program.get_subcommands({})) {
    command->group("Commands");
  }
  try {
    program.parse(argc, argv);
    return chosen;
  } catch (const CLI::Success& shown) {  // help or version
    return program.exit(shown, std::cout, std::cerr);
  } catch (const CLI::ParseError& error) {
    return explained(program, error, argc > 1 ? argv[1] : "");
  }
}

}  // namespace orvo::inspection
