// Every call of a run that can fail is made to fail: with each status, once and from then on,
// before and after its effect, alone and with failures after it that must not be reported.
//
//     campaign_driver_failures [RUNS | all]
#include <map>
#include <sstream>

#include "campaigns/campaign.h"
#include "support/scratch.h"

namespace orvo::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kRuns = 3;

struct Case {
  ToolCall call;
  std::string failing;  ///< the failing call, as its line in the ledger begins
  int status = 0;
  bool tolerated = false;  ///< no failure: a read without data, or a close
  bool loses_data = false;
  std::string detail;
};

/// What the untouched run does.
struct Reference {
  std::string out;
  std::string ledger;
  std::vector<std::string> payloads;
};

ToolCall plain_call() {
  // Four reads of each stream: three get all of it at once, the fourth waits past the capture's
  // end.
  return {.arguments = {"--output-root=out", "--capture-s=0.02", "--chunk-bytes=4096"},
          .sim = "pace=bytes:9000"};
}

Reference run_reference() {
  const ScratchDirectory directory;
  const ToolResult tool = run_tool(directory.path(), plain_call());
  const fs::path run_dir = run_dir_in(directory.file("out"));
  Reference reference{with(tool.out, run_dir.string(), "RUN_DIR"), tool.ledger, {}};
  for (std::size_t run = 1; run <= kRuns; ++run) {
    reference.payloads.push_back(payload_of(recording(run_dir, run)));
  }
  return reference;
}

Case make_case(const std::string& operation, std::size_t number, std::size_t stream, int status,
               unsigned variant) {
  Case c;
  const bool is_read = operation == "ot_read_stream_bytes";
  const bool is_stop = operation == "ot_stop_stream_mode";
  const bool always = (variant & 1) != 0;
  const bool effect = (variant & 2) != 0;
  const bool followed = (variant & 4) != 0;
  c.call = plain_call();
  c.failing = operation + " k=" + std::to_string(number) + ' ';
  c.status = status;
  c.tolerated = operation == "ot_close" || (is_read && (status == 0 || status == -3));
  c.loses_data = c.tolerated && (effect || always);
  c.detail = followed ? "" : "lost: 1/2";
  std::string& sim = c.call.sim;
  sim += ";fail=" + operation + ':' + std::to_string(number) + ':' + std::to_string(status);
  sim += std::string(always ? ":always" : "") + (effect ? ":effect" : "");
  if (!followed) sim += ":detail=" + c.detail;
  if (followed && !c.tolerated) {
    sim += ";fail=ot_close:1:-2:detail=hidden";
    if (is_read || is_stop) {
      sim += ";fail=ot_stop_stream_mode:" + std::to_string(stream + (is_stop ? 1 : 0)) +
             ":-6:detail=hidden";
    }
  }
  return c;
}

std::vector<Case> make_cases(const Reference& reference) {
  std::vector<Case> cases;
  std::map<std::string, std::size_t> calls;
  std::istringstream lines(reference.ledger);
  for (std::string line; std::getline(lines, line);) {
    const std::string operation = line.substr(0, line.find(' '));
    const std::size_t number = ++calls[operation];
    if (line.find(" status=") == std::string::npos) continue;
    for (const int status : {-1, -2, -3, -4, -5, -6, 77, 0}) {
      if (status == 0 && operation != "ot_read_stream_bytes") continue;
      for (unsigned variant = 0; variant < 8; ++variant) {
        cases.push_back(
            make_case(operation, number, calls["ot_start_stream_mode"], status, variant));
      }
    }
  }
  return cases;
}

std::string expected_message(char call, const Case& c) {
  static const std::map<char, std::string> kLabels = {{'d', "discover"},
                                                      {'o', "open"},
                                                      {'i', "identify"},
                                                      {'f', "set_calibration_freq"},
                                                      {'m', "set_stream_channels"},
                                                      {'p', "set_packed_delta_config"},
                                                      {'x', "set_stream_interface"},
                                                      {'s', "start_stream(mode)"},
                                                      {'r', "read_stream_bytes"},
                                                      {'t', "stop_stream_any"}};
  static const std::map<int, std::string> kTexts = {
      {-1, "invalid argument"}, {-2, "input/output failure"},
      {-3, "timeout"},          {-4, "unexpected format"},
      {-5, "not found"},        {-6, "not open"},
      {77, "unknown status"},
  };
  const bool without_device = call == 'd' || call == 'o';
  return kLabels.at(call) + ": " + kTexts.at(c.status) +
         (without_device || c.detail.empty() ? "" : " (" + c.detail + ")") + '\n';
}

/// As far as each stream began as it did in the untouched run, it has delivered the same bytes.
bool same_payloads(const fs::path& run_dir, std::size_t files, const Reference& reference) {
  for (std::size_t run = 1; run <= files; ++run) {
    const std::string bytes = payload_of(recording(run_dir, run));
    if (!reference.payloads[run - 1].starts_with(bytes)) return false;
    if (bytes != reference.payloads[run - 1]) break;
  }
  return true;
}

std::string judge_end(const Case& c, const ToolResult& tool, char failed_call, const fs::path& root,
                      const Reference& reference) {
  const fs::path run_dir = run_dir_in(root);
  const std::string run_name = run_dir.filename().string() + ' ';
  if (failed_call == 0) {
    const bool pass = tool.out.find("\npass=true\n") != std::string::npos;
    if (!c.tolerated) return "the failure had no consequence";
    if (tool.err != "" || tool.status != (pass ? 0 : 2)) return "an end without success";
    if (!pass && !c.loses_data) return "a wrong verdict";
    if (names_in(root) != run_name + "latest.csv latest.json latest_summary.txt ") {
      return "published: " + names_in(root);
    }
    return "";
  }
  if (c.tolerated || tool.status != 1) return "the wrong exit status";
  if (tool.err != expected_message(failed_call, c)) return "the wrong message " + tool.err;
  if (!reference.out.starts_with(with(tool.out, run_dir.string(), "RUN_DIR")))
    return "a wrong console";
  if (names_in(root) != run_name) return "published: " + names_in(root);
  return names_in(run_dir).find("overflow_frequency.") != std::string::npos ? "reports written"
                                                                            : "";
}

std::string judge(const Case& c, const ToolResult& tool, const fs::path& root,
                  const Reference& reference) {
  static const std::string kProtocol =
      "(d|DLo|DLO(i|I" + kCapture +
      "{0,2}(f|Fm|FMp|FMPx|FMPXf|FMPXFs|FMPXFSR?r[Zz]|FMPXFSR?t[Zz])|I" + kCapture + "{3})[Cc])\\.";
  if (tool.hung) return "hung";
  const fs::path run_dir = run_dir_in(root);
  const std::string wrong =
      wrong_calls(tool.ledger, kProtocol) + wrong_recordings(run_dir, tool.ledger);
  if (!wrong.empty()) return wrong;
  const std::string calls = calls_in(tool.ledger);
  const std::size_t failed = calls.find_first_of("doifmpxsrt");
  if (!c.loses_data && !same_payloads(run_dir, streamed_bytes(tool.ledger).size(), reference)) {
    return "other bytes in a recording";
  }
  return judge_end(c, tool, failed == std::string::npos ? '\0' : calls[failed], root, reference);
}

std::string attempt(const Case& c, const Reference& reference) {
  const ScratchDirectory directory;
  const ToolResult tool = run_tool(directory.path(), c.call);
  const bool made = tool.hung || tool.ledger.find(c.failing) != std::string::npos;
  return report(made ? judge(c, tool, directory.file("out"), reference) : "never called", c.call);
}

}  // namespace
}  // namespace orvo::tests

int main(int argc, char** argv) {
  using namespace orvo::tests;
  const Reference reference = undisturbed(run_reference);
  const std::vector<Case> cases = make_cases(reference);
  return run_campaign("driver_failures", cases.size(), {argc, argv, 150},
                      [&](std::size_t i) { return attempt(cases[i], reference); });
}
