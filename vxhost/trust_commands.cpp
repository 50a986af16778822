#include "vxhost/trust_commands.h"

#include <cstdio>
#include <memory>
#include <string>

#include "launch/qubo_facade.h"
#include "platform/windows_runtime_error.h"
#include "security/file_trust.h"
#include "vxhost/text.h"

namespace Vx::Host {

namespace {

constexpr char kTrustFooter[] =
    "The keys are those compiled into this vxhost. Lines with + are checks that the file passes, "
    "lines\n"
    "with - checks that it fails. Exit code 0: trusted; 1: not.\n"
    "  vxhost trust \"C:\\Program Files\\Maker\\Tool.exe\"";
constexpr char kPinFooter[] = "  vxhost pin Signed.exe >> restricted.txt";
constexpr char kResumeFooter[] = "  vxhost explain-resume";

struct Options {
  std::string file;
  bool general = false;
};

int Trust(const Options& options, Console& console) {
  const auto keys =
      options.general ? Tessel::Security::GeneralKeys() : Tessel::Security::RestrictedKeys();
  const auto trust = Tessel::Security::JudgeFile(FullPathOfFile(options.file), keys);
  for (const auto& step : Tessel::Security::Explain(trust, keys)) {
    console.Line((step.passed ? "  +  " : "  -  ") + Utf8(step.text));
  }
  return trust.trusted ? kDone : kNotMet;
}

int Pin(const Options& options, Console& console) {
  const auto keys = Tessel::Security::PublicKeysOf(FullPathOfFile(options.file));
  for (const std::string& key : keys) console.Line(key);
  if (!keys.empty()) return kDone;
  // Not on standard output, which users append to a file of pinned keys.
  std::fprintf(stderr, "vxhost: the file has no signature that Windows can read\n");
  return kNotMet;
}

int ExplainResume(Console& console) {
  using Tessel::Server::Services::Orvane::Qubo::Explain;
  using Tessel::Server::Services::Orvane::Qubo::QuboFacade;
  for (const std::wstring& line : Explain(QuboFacade().ExplainResume())) console.Line(Utf8(line));
  return kDone;
}

}  // namespace

void AddTrustCommands(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  CLI::App& trust =
      line.Add("trust", "explain whether a file is trusted, step by step", kTrustFooter,
               [options](Console& console) { return Trust(*options, console); });
  trust.add_option("file", options->file, "the file")->required();
  trust.add_flag("--general", options->general,
                 "check against the general keys instead of the restricted ones");

  line.Add("pin", "print a signed file's public keys in the pinned form", kPinFooter,
           [options](Console& console) { return Pin(*options, console); })
      .add_option("file", options->file, "the file")
      ->required();
}

void AddResumeCommand(CommandLine& line) {
  line.Add("explain-resume", "explain whether a resume would launch the companion app, and why",
           kResumeFooter, &ExplainResume);
}

}  // namespace Vx::Host
