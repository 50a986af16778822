#include "vxhost/commands/commands.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <windows.h>

#include "hosting/text.h"
#include "json/json_text.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "security/file_trust.h"
#include "vxhost/subscriptions/signing_keys.h"

namespace Vx::Hosting::Tool {

namespace {

constexpr char kPinsFooter[] =
    "Shows the SHA-256 of each key and, where the module's own signature or a --cert has a "
    "certificate\n"
    "of it, the subject and the days left.\n"
    "  vxhost --dll OrvaneService.dll pins --cert Maker.cer";
constexpr char kTrustFooter[] =
    "The keys are those of the module. Lines with + are checks that the file passes, lines\n"
    "with - checks that it fails. Exit code 0: trusted; 1: not.\n"
    "  vxhost trust \"C:\\Program Files\\Maker\\Tool.exe\"";
constexpr char kPinFooter[] =
    "With --append, each key that FILE lacks is added to it below a comment with the subject. "
    "FILE\n"
    "becomes UTF-8, as the build wants it, also where Windows PowerShell made it UTF-16.\n"
    "  vxhost pin Signed.exe --append restricted.txt";

struct Options {
  std::string file;
  std::string append;
  bool general = false;
  std::vector<std::string> certificates;
};

// Adds a key set to the JSON and text results, each key with its certificate if available.
void AddSet(const wchar_t* name, const char* meaningOfNone, Tessel::Security::KeySet keys,
            const std::vector<Certificate>& certificates, JsonRow& result,
            std::vector<std::string>& lines) {
  const std::uint64_t now = Platform::CurrentMachine().clock->UtcFileTime();
  std::vector<JsonRow> rows;
  lines.push_back(Utf8(name) + ": " + (keys.empty() ? meaningOfNone : std::to_string(keys.size())));
  for (const std::string_view key : keys) {
    JsonRow row{{L"fingerprint", Fingerprint(key)}, {L"key", std::string(key)}};
    std::string owner = "no certificate was found";
    if (const Certificate* certificate = CertificateOf(certificates, key)) {
      row.Add({L"subject", certificate->subject});
      row.Add({L"until", EndDate(*certificate)});
      row.Add({L"daysLeft", DaysLeft(*certificate, now)});
      owner = Utf8(certificate->subject + L", until " + Lifetime(*certificate, now));
    }
    rows.push_back(row);
    lines.push_back("  sha256 " + Fingerprint(key));
    lines.push_back("    " + owner);
  }
  result.Add({name, rows});
}

int Pins(const Options& options, const ModuleOptions& module, Console& console) {
  const ModulePins pins(module.Path());
  std::vector<Certificate> certificates = CertificatesIn(module.Path());
  for (const std::string& file : options.certificates) {
    const auto more = CertificatesIn(FullPathOfFile(file));
    if (more.empty())
      throw std::runtime_error(file + " contains neither a certificate nor a signature");
    certificates.insert(certificates.end(), more.begin(), more.end());
  }
  if (!console.WritesJson()) console.Note("The keys that " + Utf8(module.Path()) + " trusts");
  JsonRow result{{L"module", module.Path()}};
  std::vector<std::string> lines;
  AddSet(L"general", "none, so the lockdown library is not trusted", pins.General(), certificates,
         result, lines);
  AddSet(L"restricted", "none, so no program is started", pins.Restricted(), certificates, result,
         lines);
  console.Show(result, lines);
  return kDone;
}

int Trust(const Options& options, const ModuleOptions& module, Console& console) {
  const std::wstring file = FullPathOfFile(options.file);
  const ModulePins pins(module.Path());
  const auto keys = options.general ? pins.General() : pins.Restricted();
  const auto trust = Tessel::Security::VerifyFile(file, keys);
  std::vector<JsonRow> checks;
  std::vector<std::string> lines;
  for (const auto& step : Tessel::Security::Explain(trust, keys)) {
    checks.push_back({{L"passed", step.passed}, {L"text", step.text}});
    lines.push_back((step.passed ? "  +  " : "  -  ") + Utf8(step.text));
  }
  console.Show({{L"file", options.file}, {L"trusted", trust.trusted}, {L"checks", checks}}, lines);
  return trust.trusted ? kDone : kNotMet;
}

// Returns whether a line of a key file contains `key`, before any comment.
bool HoldsKey(const std::string& text, std::string_view key) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    line.resize(std::min(line.find('#'), line.size()));
    line.resize(line.find_last_not_of(" \t\r") + 1);  // npos + 1 is 0
    if (line == key) return true;
  }
  return false;
}

// Writes a temporary file and renames it, so that a failed write does not change the file.
void Replace(const std::wstring& path, const std::string& text) {
  const std::wstring sibling = path + L".new";
  std::ofstream file(sibling.c_str(), std::ios::binary);
  file << text;
  file.close();
  if (!file.fail() && MoveFileExW(sibling.c_str(), path.c_str(),
                                  MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE) {
    return;
  }
  DeleteFileW(sibling.c_str());
  throw std::runtime_error("cannot write " + Utf8(path));
}

// Appends the keys that the file lacks, and returns them.
std::vector<std::string> AppendKeys(const std::vector<std::string>& keys,
                                    const std::vector<Certificate>& certificates,
                                    const std::wstring& path) {
  const bool exists = GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
  std::string text = exists ? Utf8(ReadTextFile(path)) : std::string();
  std::vector<std::string> added;
  for (const std::string& key : keys) {
    if (HoldsKey(text, key)) continue;
    if (!text.empty() && text.back() != '\n') text += '\n';
    const Certificate* certificate = CertificateOf(certificates, key);
    const std::wstring subject = certificate == nullptr ? L"unknown subject" : certificate->subject;
    text += "# " + Printable(Utf8(subject), LineBreaks::Replace) + "\n" + key + "\n";
    added.push_back(key);
  }
  Replace(path, text);
  return added;
}

int Pin(const Options& options, const ModuleOptions&, Console& console) {
  const std::wstring file = FullPathOfFile(options.file);
  auto keys = Tessel::Security::PublicKeysOf(file);
  const bool found = !keys.empty();
  if (found && !options.append.empty()) {
    keys = AppendKeys(keys, CertificatesIn(file), FullPath(options.append));
    console.Note("keys added: " + std::to_string(keys.size()));
  }
  console.Show({{L"keys", keys}}, keys);
  if (found) return kDone;
  if (console.WritesJson()) return kNotMet;
  // Not to standard output, which users append to a file of pinned keys.
  std::fprintf(stderr, "vxhost: the file has no signature that Windows can read\n");
  return kNotMet;
}

}  // namespace

void AddTrustCommands(CommandLine& line) {
  const auto pins = line.Add({"pins", "list the keys that a module trusts", kPinsFooter}, &Pins,
                             Shared::Dll | Shared::Json);
  pins.app.add_option("--cert", pins.options.certificates,
                      "a certificate, or a file signed with it");

  const auto trust =
      line.Add({"trust", "explain whether a file is trusted, step by step", kTrustFooter}, &Trust,
               Shared::Dll | Shared::Json);
  trust.app.add_option("file", trust.options.file, "the file")->required();
  trust.app.add_flag("--general", trust.options.general,
                     "check against the general keys instead of the restricted ones");

  const auto pin =
      line.Add({"pin", "print a signed file's public keys in the pinned form", kPinFooter}, &Pin,
               Shared::Json);
  pin.app.add_option("file", pin.options.file, "the file")->required();
  pin.app.add_option("--append", pin.options.append, "the file of pinned keys to add them to");
}

}  // namespace Vx::Hosting::Tool
