// The tool where nobody thought of it: odd paths, folders in the place of files, a console that is
// closed or goes away, other time zones and locales. The results are those of any other run.
//
//     campaign_hostile_surroundings [RUNS | all]

#include <cstdlib>
#include <ctime>
#include <regex>

#include "campaigns/campaign.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kRuns = 3;
const std::string kReport = "overflow_frequency";

ToolCall plain_call(const std::string& root = "out") {
  return {.arguments = {"--output-root=" + root, "--capture-s=0.1"}, .sim = "pace=bytes:9000"};
}

Texts results_in(const fs::path& run_dir) {
  Texts results = {with(read_file(run_dir / (kReport + ".csv")), run_dir.string(), "RUN_DIR")};
  for (std::size_t run = 1; run <= kRuns; ++run) {
    results.push_back(payload_of(recording(run_dir, run)));
  }
  return results;
}

const Texts& untouched() {
  static const Texts results = [] {
    const ScratchDirectory directory;
    static_cast<void>(run_tool(directory.path(), plain_call()));
    return results_in(run_dir_in(directory.file("out")));
  }();
  return results;
}

/// A run that has passed, with all it has to leave behind.
std::string wrong_success(const ToolResult& tool, const fs::path& root) {
  if (tool.status != 0 || tool.err != "") {
    return "status " + std::to_string(tool.status) + ": " + tool.err;
  }
  const fs::path run_dir = run_dir_in(root);
  if (results_in(run_dir) != untouched()) return "other recordings or another CSV report";
  for (const char* const name : {"csv", "json"}) {
    if (read_file(root / (std::string("latest.") + name)) !=
        read_file(run_dir / (kReport + '.' + name))) {
      return std::string("published another ") + name;
    }
  }
  if (!read_file(root / "latest_summary.txt").ends_with(" pass=true\n")) return "another summary";
  return wrong_calls(tool.ledger, ".*TC\\.");
}

std::string odd_path(const std::string& name) {
  const ScratchDirectory directory;
  const fs::path here = directory.file(name);
  fs::create_directory(here);
  const std::string ini = (here / "ot_verify_overflow_frequency.ini").string();
  write_file(ini, "");
  const fs::path root = here / (name + "=" + name);
  const ToolResult tool = run_tool(here, plain_call(root.filename().string()));
  const std::string run_dir = run_dir_in(root).string();
  const std::string escaped = with(with(run_dir, "\"", "\\\""), "\n", "\\n");
  const std::string json = read_file(root / "latest.json");
  if (json.find("\"stream_file\":\"" + escaped + "/overflow") == std::string::npos) return json;
  if (!tool.out.starts_with("Config: " + ini + "\nOutput: " + run_dir + "\nDevice: ") ||
      !tool.out.ends_with("\nlatest_json=" + (root / "latest.json").string() + '\n')) {
    return "another console:\n" + tool.out;
  }
  return wrong_success(tool, root);
}

/// As any other run, though the reader of its standard output leaves `after` it has got a text.
std::string passes(const ToolCall& call, const char* after = nullptr) {
  const ScratchDirectory directory;
  ToolProcess tool(directory.path(), call);
  if (after != nullptr) {
    tool.run_until([&] { return tool.out.find(after) != std::string::npos; });
    tool.close_output();
  }
  tool.finish();
  // The driver's ledger is a file opened early: it would be the one to take in the console's text.
  if (tool.ledger.find("Output: ") != std::string::npos) return "the console in a file";
  if (!call.closed.empty()) tool.err.clear();
  return wrong_success(tool, directory.file("out"));
}

ToolCall call_with(const char* closed, const char* variable) {
  ToolCall call = plain_call();
  call.closed = closed;
  call.environment = {variable};
  return call;
}

/// What cannot be said does not change the exit status.
std::string unheard(const char* argument, int status) {
  const ScratchDirectory directory;
  const ToolResult tool = run_tool(directory.path(), {.arguments = {argument}, .unread = true});
  return tool.status == status ? "" : argument + std::string(": ") + std::to_string(tool.status);
}

std::string local_stamp(std::time_t time) {
  std::tm local = {};
  localtime_r(&time, &local);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y%m%d_%H%M%S", &local)};
}

std::string other_zone(const std::string& zone) {
  setenv("TZ", zone.c_str(), 1);  // of this process, and so of the tool's
  tzset();
  const ScratchDirectory directory;
  const std::time_t before = std::time(nullptr);
  const ToolResult tool = run_tool(directory.path(), plain_call());
  const fs::path root = directory.file("out");
  const std::string stamp = run_dir_in(root).filename().string();
  bool right = false;
  for (std::time_t time = before; time <= std::time(nullptr); ++time) {
    right = right || stamp == local_stamp(time);
  }
  unsetenv("TZ");
  tzset();
  return right ? wrong_success(tool, root) : "run directory " + stamp;
}

/// `folder` stands where a file is to be; in it is something unless it is `empty`. RUN/ is the
/// run's directory. The message begins with `message`; "" for a run that passes all the same.
std::string folder_for_file(const std::string& folder, bool empty, const std::string& message,
                            const std::string& calls) {
  const ScratchDirectory directory;
  const fs::path& here = directory.path();
  // The run's directory is named by the second in which it starts.
  const std::time_t last = std::time(nullptr) + 4;
  for (std::time_t time = last - 4; time <= last; ++time) {
    const fs::path made = here / with(folder, "RUN", "out/" + local_stamp(time));
    fs::create_directories(empty ? made : made / "content");
  }
  const ToolResult tool = run_tool(here, plain_call());
  const std::string last_run_dir = here / "out" / local_stamp(last);
  if (lines_with(tool.out, "Output: ") > "Output: " + last_run_dir + '\n') throw Starved();
  if (message.empty()) return wrong_success(tool, here / "out");
  const std::string err = with(tool.err, (here / "out").string(), "OUT");
  if (!std::regex_match(err, std::regex(message + ".*\n")) || tool.status != 1) return err;
  if (tool.out.find("latest_summary=") != std::string::npos) return "told of results";
  return wrong_calls(tool.ledger, calls);
}

std::vector<std::function<std::string()>> make_cases() {
  std::vector<std::function<std::string()>> cases;
  for (const char* const name :
       {"it's", "\"q\"", "two\nlines", "\xC3\xA9\xFF\x80", "a b;c,d#e%s"}) {
    cases.push_back([=] { return odd_path(name); });
  }
  for (const char* const closed : {"0", "1", "2", "01", "02", "12", "012"}) {
    // With lines for standard error, too.
    cases.push_back([=] { return passes(call_with(closed, "ORVO_PACKED_DEBUG=1")); });
  }
  for (const char* const after : {"", "Device", "Capture 1", "Capture 2", "Capture 3"}) {
    cases.push_back([=] { return passes(plain_call(), after); });
  }
  cases.push_back([] { return unheard("--help", 0); });
  cases.push_back([] { return unheard("--capture-s=0", 64); });
  cases.push_back([] { return unheard("--output-root=/dev/null", 1); });
  for (const char* const zone : {"", "UTC", "<+14>-14", "<-12>12:34:56", "CET-1CEST",
                                 "Nowhere/At_All", ":/dev/null", "<a>-24:59:59<b>-23"}) {
    cases.push_back([=] { return other_zone(zone); });
  }
  for (const char* const locale : {"LC_ALL=de_DE.UTF-8", "LC_NUMERIC=fr_FR", "LANG=none"}) {
    cases.push_back([=] { return passes(call_with("", locale)); });
  }
  const std::string all = "DLOI" + kCapture + "{3}C\\.";
  const struct {
    const char* folder;
    bool empty;
    const char* message;
    std::string calls;
  } folders[] = {
      {"fine_lut.bin", false, "", all},
      {"out/latest.csv", true, "", all},
      {"out/latest.json", true, "", all},
      {"RUN/overflow_frequency_01.ortime", true, "StreamFileWriter: cannot open OUT/",
       "DLOIFMPXFC\\."},
      {"RUN/overflow_frequency_03.ortime", true, "StreamFileWriter: cannot open OUT/",
       "DLOI" + kCapture + "{2}FMPXFC\\."},
      {"RUN/overflow_frequency.csv", true, "could not open overflow CSV output", all},
      {"RUN/overflow_frequency.json", true, "could not open overflow JSON output", all},
      {"RUN/overflow_frequency.summary.txt", true, "could not open text output", all},
      {"out/latest.csv", false, "could not publish OUT/latest.csv: ", all},
      {"out/latest.json", false, "could not publish OUT/latest.json: ", all},
      {"out/latest_summary.txt", true, "could not open text output", all},
  };
  for (const auto& f : folders) {
    cases.push_back([f] { return folder_for_file(f.folder, f.empty, f.message, f.calls); });
  }
  return cases;
}

}  // namespace
}  // namespace orvo::tests

int main(int argc, char** argv) {
  using namespace orvo::tests;
  const auto cases = make_cases();
  return run_campaign("hostile_surroundings", cases.size(), {argc, argv, 0},
                      [&](std::size_t i) { return cases[i](); });
}
