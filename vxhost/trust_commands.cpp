#include "vxhost/trust_commands.h"

#include <cstdio>

#include "launch/qubo_facade.h"
#include "platform/windows_runtime_error.h"
#include "security/file_trust.h"
#include "vxhost/text.h"

namespace Vx::Host {

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

int ExplainResume(const Options& /*options*/, Console& console) {
  using Tessel::Server::Services::Orvane::Qubo::Explain;
  using Tessel::Server::Services::Orvane::Qubo::QuboFacade;
  for (const std::wstring& line : Explain(QuboFacade().ExplainResume())) console.Line(Utf8(line));
  return kDone;
}

}  // namespace Vx::Host
