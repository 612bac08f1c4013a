// The tool where nobody thought of it: odd paths, folders in the place of files, a console that is
// closed or goes away, other time zones and locales. The results are those of any other run.
//
//     campaign_hostile_surroundings [RUNS | all]

#include <cstdlib>
#include <ctime>
#include <regex>

#include "campaigns/tool_process.h"
#include "campaigns/traces.h"
#include "support/scratch.h"

namespace orvo::campaigns {
namespace {

namespace fs = std::filesystem;
using tests::read_file;

constexpr std::size_t kRuns = 3;
const std::string kReport = "overflow_frequency";

ToolCall plain_call(const std::string& root = "out") {
  return {{"--output-root=" + root, "--capture-s=0.1"}, "pace=bytes:9000"};
}

struct Results {
  std::vector<std::string> payloads;
  std::string csv;
};

Results results_in(const fs::path& run_dir) {
  Results results;
  for (std::size_t run = 1; run <= kRuns; ++run) results.payloads.push_back(payload(run_dir, run));
  results.csv = with(read_file(run_dir / (kReport + ".csv")), run_dir.string(), "RUN_DIR");
  return results;
}

const Results& untouched() {
  static const Results results = [] {
    const tests::ScratchDirectory directory;
    ToolProcess tool(directory.path(), plain_call());
    tool.finish();
    return results_in(run_dir_in(fs::canonical(directory.file("out"))));
  }();
  return results;
}

/// A run that has passed, with all it has to leave behind.
std::string wrong_success(const ToolProcess& tool, const fs::path& root) {
  if (tool.hung || tool.exit_status != 0 || tool.err != "") {
    return "status " + std::to_string(tool.exit_status) + ": " + tool.err;
  }
  const fs::path run_dir = run_dir_in(root);
  const Results results = results_in(run_dir);
  if (results.payloads != untouched().payloads) return "other recordings";
  if (results.csv != untouched().csv) return "another CSV report";
  for (const char* const name : {"csv", "json"}) {
    if (read_file(root / (std::string("latest.") + name)) !=
        read_file(run_dir / (kReport + '.' + name))) {
      return std::string("published another ") + name;
    }
  }
  if (!read_file(root / "latest_summary.txt").ends_with(" pass=true\n")) return "another summary";
  return calls_in(tool.ledger).ends_with("TC.") ? "" : "calls " + calls_in(tool.ledger);
}

std::string odd_path(const std::string& name) {
  const tests::ScratchDirectory directory;
  const fs::path here = fs::canonical(directory.path()) / name;
  fs::create_directory(here);
  const std::string ini = (here / "ot_verify_overflow_frequency.ini").string();
  tests::write_file(ini, "");
  const fs::path root = here / (name + "=" + name);
  ToolProcess tool(here, plain_call(root.filename().string()));
  tool.finish();
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

std::string console_closed(const std::string& descriptors) {
  const tests::ScratchDirectory directory;
  ToolCall call = plain_call();
  call.closed = descriptors;
  call.environment = {"ORVO_PACKED_DEBUG=1"};  // lines for standard error, too
  ToolProcess tool(directory.path(), call);
  tool.finish();
  // The driver's ledger is a file opened early: it would be the one to take in the console's text.
  if (tool.ledger.find("Output: ") != std::string::npos) return "the console in a file";
  tool.err.clear();
  return wrong_success(tool, fs::canonical(directory.file("out")));
}

std::string console_leaves(const std::string& after) {
  const tests::ScratchDirectory directory;
  ToolProcess tool(directory.path(), plain_call());
  tool.run_until([&] { return tool.out.find(after) != std::string::npos; });
  tool.close_output();
  tool.finish();
  return wrong_success(tool, fs::canonical(directory.file("out")));
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
  const tests::ScratchDirectory directory;
  const std::time_t before = std::time(nullptr);
  ToolProcess tool(directory.path(), plain_call());
  tool.finish();
  const fs::path root = fs::canonical(directory.file("out"));
  const std::string stamp = run_dir_in(root).filename().string();
  bool right = false;
  for (std::time_t time = before; time <= std::time(nullptr); ++time) {
    right = right || stamp == local_stamp(time);
  }
  unsetenv("TZ");
  return right ? wrong_success(tool, root) : "run directory " + stamp;
}

std::string other_locale(const std::string& variable) {
  const tests::ScratchDirectory directory;
  ToolCall call = plain_call();
  call.environment = {variable};
  ToolProcess tool(directory.path(), call);
  tool.finish();
  return wrong_success(tool, fs::canonical(directory.file("out")));
}

/// `folder` stands where a file is to be; in it is something unless it is `empty`. RUN/ is the
/// run's directory. The message begins with `message`; "" for a run that passes all the same.
std::string folder_for_file(const std::string& folder, bool empty, const std::string& message,
                            const std::string& calls) {
  const tests::ScratchDirectory directory;
  const fs::path here = fs::canonical(directory.path());
  // The run's directory is named by the second in which it starts.
  const std::time_t now = std::time(nullptr);
  for (std::time_t time = now; time < now + 4; ++time) {
    const fs::path made = here / with(folder, "RUN", "out/" + local_stamp(time));
    fs::create_directories(empty ? made : made / "content");
  }
  ToolProcess tool(here, plain_call());
  tool.finish();
  if (message.empty()) return wrong_success(tool, here / "out");
  const std::string err = with(tool.err, (here / "out").string(), "OUT");
  if (!std::regex_match(err, std::regex(message + ".*\n")) || tool.exit_status != 1) return err;
  if (tool.out.find("latest_summary=") != std::string::npos) return "told of results";
  const std::string made = calls_in(tool.ledger);
  return std::regex_match(made, std::regex(calls)) ? "" : "calls " + made;
}

std::vector<std::function<std::string()>> make_cases() {
  std::vector<std::function<std::string()>> cases;
  for (const char* const name :
       {"it's", "\"q\"", "two\nlines", "\xC3\xA9\xFF\x80", "a b;c,d#e%s"}) {
    cases.push_back([=] { return odd_path(name); });
  }
  for (const char* const closed : {"0", "1", "2", "01", "02", "12", "012"}) {
    cases.push_back([=] { return console_closed(closed); });
  }
  for (const char* const after : {"", "Device", "Capture 1", "Capture 2", "Capture 3"}) {
    cases.push_back([=] { return console_leaves(after); });
  }
  for (const char* const zone : {"", "UTC", "<+14>-14", "<-12>12:34:56", "CET-1CEST",
                                 "Nowhere/At_All", ":/dev/null", "<a>-24:59:59<b>-23"}) {
    cases.push_back([=] { return other_zone(zone); });
  }
  for (const char* const locale : {"LC_ALL=de_DE.UTF-8", "LC_NUMERIC=fr_FR", "LANG=none"}) {
    cases.push_back([=] { return other_locale(locale); });
  }
  const std::string all = std::string("DLOI") + kCapture + "{3}C\\.";
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
       std::string("DLOI") + kCapture + "{2}FMPXFC\\."},
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
}  // namespace orvo::campaigns

int main(int argc, char** argv) {
  using namespace orvo::campaigns;
  const auto cases = make_cases();
  return run_campaign("hostile_surroundings", cases.size(), budget_from(argc, argv, 0),
                      [&](std::size_t i) { return cases[i](); });
}
