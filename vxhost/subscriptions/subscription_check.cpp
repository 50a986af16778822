#include "vxhost/subscriptions/subscription_check.h"

#include <algorithm>
#include <optional>
#include <set>

#include "events/delivery_rules.h"
#include "events/event_commands.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "hosting/json_row.h"
#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/trust_provider.h"
#include "platform/windows_runtime_error.h"
#include "security/authenticode_helper.h"
#include "security/file_trust.h"
#include "security/path_rules.h"
#include "security/trusted_program.h"
#include "service/dispatch.h"
#include "vxhost/common/console.h"
#include "vxhost/subscriptions/signing_keys.h"

#include <windows.h>

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Json::WideValue;
using rapidjson::kNumberType;
using rapidjson::kObjectType;
using rapidjson::kStringType;
using Tessel::Security::SameIgnoringCase;

constexpr auto kChanged = static_cast<std::int32_t>(0x80096010);  // TRUST_E_BAD_DIGEST
constexpr wchar_t kPinnedSignature[] =
    L"a signature with a restricted key, as vxhost pins lists them";

// In the order of rapidjson::Type.
constexpr const wchar_t* kTypeNames[] = {L"null",      L"true or false", L"true or false",
                                         L"an object", L"an array",      L"a string",
                                         L"a number"};

std::wstring Shown(const WideValue& value) {
  if (value.IsObject()) return L"{...}";
  if (value.IsArray()) return L"[...]";
  return Shortened(Json::JsonText(value));
}

// Checks one request. Reads its members in order, so the findings are in the same order.
class Checker {
 public:
  Checker(Tessel::Security::KeySet pinned, SubscriptionCheck& result)
      : keys(pinned), findings(result.findings) {}

  void Request(const WideValue& request) {
    kind = KindOf(request);
    if (kind == nullptr) return;
    Level level{request, L"", {}};
    code = TakeNumber(level, kind->event);
    if (code) CheckCode();
    const auto action = TakeNumber(level, kind->action);
    const bool starts = action == static_cast<std::uint32_t>(EventAction::Launch);
    const bool sends = action == static_cast<std::uint32_t>(EventAction::AppServiceNotification);
    if (action && !starts && !sends) {
      readable = false;
      Never(kind->action, Shown(*FindMember(request, kind->action)),
            L"1 (start a program) or 2 (send a message)", L"no such action");
    }
    if (kind->family != nullptr) {
      const WideValue* family = Take(level, kind->family, kStringType, Need::Required);
      if (family != nullptr) CheckFamily(kind->family, TextOf(*family));
    }
    if (const auto* params = Take(level, kind->parameters, kObjectType, Need::Required)) {
      Level inner{*params, kind->parameters + std::wstring(L"."), {}};
      if (starts) CheckLaunch(inner);
      if (sends) CheckMessage(inner);
      if (starts || sends) {
        CheckDelay(inner);
        Leftovers(inner);
      }
    }
    Leftovers(level);
  }

  // The module's own parser decides. Call this last, because it stops at the first fault.
  void AskModule(const std::wstring& text) {
    if (!readable) return;
    try {
      const EventSubscription asRead(text, *kind);
    } catch (const Platform::WindowsRuntimeError& error) {
      Never(L"", L"", L"a subscription that the module can read", error.message());
    }
  }

  void Never(const std::wstring& key, const std::wstring& found, const std::wstring& wanted,
             const std::wstring& text) {
    findings.push_back({Verdict::Never, key, found, wanted, text});
  }

 private:
  // Typed: may be absent, but the wrong type makes the subscription unreadable.
  enum class Need { Required, Typed, Optional };

  // An object in the request, and the names of the members looked up in it.
  struct Level {
    const WideValue& object;
    std::wstring prefix;
    std::set<std::wstring> asked;
  };

  void Hint(const std::wstring& key, const std::wstring& found, const std::wstring& wanted,
            const std::wstring& text) {
    findings.push_back({Verdict::Hint, key, found, wanted, text});
  }
  void Good(const std::wstring& key, const std::wstring& text) {
    findings.push_back({Verdict::Good, key, L"", L"", text});
  }

  const SubscriptionForm* KindOf(const WideValue& request) {
    for (const SubscriptionForm* form : kSubscriptionForms) {
      if (FindMember(request, form->event) != nullptr) return form;
    }
    // Reporting the faults of the kind that was probably meant helps more than listing all kinds.
    for (const SubscriptionForm* form : kSubscriptionForms) {
      for (auto member = request.MemberBegin(); member < request.MemberEnd(); ++member) {
        const std::wstring name = TextOf(member->name);
        if (SameIgnoringCase(name, form->event) || IsProbablyMeant(name, form->event)) {
          return form;
        }
      }
    }
    readable = false;
    Never(L"", L"", L"powerEventType, zephraEventType or catalogEvent", L"not a subscription");
    return nullptr;
  }

  // Returns the member if present and of this type. Otherwise adds a finding.
  const WideValue* Take(Level& level, const std::wstring& name, rapidjson::Type type, Need need) {
    level.asked.insert(name);
    const std::wstring key = level.prefix + name;
    const WideValue* value = FindMember(level.object, name);
    if (value == nullptr) {
      Missing(level, name, need);
      return nullptr;
    }
    if (value->GetType() == type) return value;
    std::wstring wanted = kTypeNames[type];
    const std::wstring text =
        kTypeNames[value->GetType()] + (L", but the module expects " + wanted);
    if (type == kStringType && value->IsNumber()) wanted = Quoted(Json::JsonText(*value));
    if (type == kNumberType && value->IsString()) {
      if (const auto number = LeadingInteger(TextOf(*value))) wanted = std::to_wstring(*number);
    }
    if (need != Need::Optional) {
      readable = false;
      Never(key, Shown(*value), wanted, text);
    } else {
      Hint(key, Shown(*value), wanted, text + L" and treats the member as absent");
    }
    return nullptr;
  }

  void Missing(Level& level, const std::wstring& name, Need need) {
    const std::wstring key = level.prefix + name;
    if (need == Need::Required) readable = false;
    for (auto member = level.object.MemberBegin(); member < level.object.MemberEnd(); ++member) {
      const std::wstring written = TextOf(member->name);
      const bool otherCase = SameIgnoringCase(written, name);
      if (!otherCase && !IsProbablyMeant(written, name)) continue;
      level.asked.insert(written);
      findings.push_back({need == Need::Required ? Verdict::Never : Verdict::Hint, key,
                          Quoted(written), Quoted(name),
                          otherCase
                              ? L"is written with other capitals, and names are case-sensitive"
                              : L"is probably misspelt, and unknown members are ignored"});
      return;
    }
    if (need == Need::Required) Never(key, L"", L"", L"is missing");
  }

  // Reports members that the module does not read. A payload's members belong to the app.
  void Leftovers(const Level& level) {
    std::set<std::wstring> seen;
    for (auto member = level.object.MemberBegin(); member < level.object.MemberEnd(); ++member) {
      const std::wstring name = TextOf(member->name);
      if (!seen.insert(name).second) {
        Hint(level.prefix + name, Shown(member->value), L"the member once",
             L"appears twice, and only the first is used");
      } else if (!level.asked.contains(name)) {
        Hint(level.prefix + name, Shown(member->value), L"no such member",
             L"is unknown to the module and ignored");
      }
    }
  }

  std::optional<std::uint32_t> TakeNumber(Level& level, const wchar_t* key) {
    const WideValue* value = Take(level, key, kNumberType, Need::Required);
    if (value == nullptr) return std::nullopt;
    const double number = value->GetDouble();
    const std::uint32_t truncated = Json::TruncateToUint32(number);
    if (number >= 0 && number != truncated && truncated != 0xFFFFFFFF) {
      Hint(key, Shown(*value), std::to_wstring(truncated),
           L"is read as " + std::to_wstring(truncated));
    }
    return truncated;
  }

  void CheckCode() {
    const std::wstring event = Wide(kind->name) + L" event " + std::to_wstring(*code);
    if (const wchar_t* meaning = MeaningOf(kind->codes, *code)) {
      Good(kind->event, event + L": " + meaning);
      return;
    }
    std::wstring wanted;
    for (const EventCode& row : kind->codes) {
      wanted += (wanted.empty() ? L"" : L", ") + std::to_wstring(row.code);
    }
    Never(kind->event, std::to_wstring(*code), L"one of " + wanted, event + L" never occurs");
  }

  void CheckFamily(const std::wstring& key, const std::wstring& family) {
    const std::wstring found = Shortened(Quoted(family));
    try {
      if (family.empty()) {
        Never(key, found, L"a package family name", L"is empty");
      } else if (Platform::CurrentMachine().packages->FindForAllUsers(family).empty()) {
        Never(key, found, L"an installed package", L"no package of this family is installed");
      } else {
        Good(key, family + L" is installed");
      }
    } catch (...) {  // WindowsRuntimeError is not a std::exception
      Hint(key, found, L"", L"Windows does not report whether it is installed");
    }
  }

  void CheckDelay(Level& level) {
    constexpr wchar_t kDelay[] = L"delayDeliverySec";
    const WideValue* value = Take(level, kDelay, kStringType, Need::Typed);
    if (value == nullptr) return;
    const std::wstring key = level.prefix + kDelay;
    const std::wstring found = Shown(*value);
    const std::optional<int> delay = LeadingInteger(TextOf(*value));
    if (kind->family != nullptr) {
      Hint(key, found, L"no such member", L"package subscriptions run without a delay");
    } else if (!delay) {
      Hint(key, found, L"seconds, such as \"5\"", L"is not a number: runs without a delay");
    } else if (*delay < 1 ? IsOverdue(*delay, 0) : IsTooLong(*delay)) {
      Never(key, found, L"\"0\" to \"2147484\"", L"every delivery is dropped");
    } else {
      const std::wstring number = std::to_wstring(*delay);
      const std::wstring seconds = std::to_wstring(std::max(*delay, 0));
      if (TextOf(*value) != number) {
        Hint(key, found, Quoted(number), L"is read as " + seconds + L" s");
      } else {
        Good(key, L"runs " + seconds + L" s after the event");
      }
      if (code == kSuspend && kind == &kPowerForm && *delay > 0) {
        Hint(key, found, L"no delay, or powerEventType 18 (resumed)",
             L"the machine sleeps before the delay has passed, and the late delivery is dropped");
      }
    }
  }

  void CheckLaunch(Level& level) {
    const WideValue* path = Take(level, L"path", kStringType, Need::Required);
    if (path != nullptr) CheckProgram(level.prefix + L"path", TextOf(*path));
    Take(level, L"arguments", kStringType, Need::Optional);
  }

  void CheckMessage(Level& level) {
    const WideValue* payload = Take(level, L"payload", kObjectType, Need::Required);
    const bool raises = payload != nullptr && CheckTrigger(*payload, level.prefix + L"payload.");
    const WideValue* family = Take(level, L"packageFamilyName", kStringType, Need::Required);
    const WideValue* service = Take(level, L"appServiceName", kStringType, Need::Required);
    if (raises) return;  // no message is sent in that case
    if (family != nullptr) CheckFamily(level.prefix + L"packageFamilyName", TextOf(*family));
    if (service != nullptr && service->GetStringLength() == 0) {
      Never(level.prefix + L"appServiceName", L"\"\"", L"the app service's name", L"is empty");
    }
  }

  // Returns whether the subscription raises a trigger instead of sending its message.
  bool CheckTrigger(const WideValue& payload, const std::wstring& prefix) {
    constexpr wchar_t kTrigger[] = L"customTriggerGUID";
    Level level{payload, prefix, {}};
    const WideValue* value = Take(level, kTrigger, kStringType, Need::Optional);
    if (value == nullptr || value->GetStringLength() == 0) return false;
    std::wstring text = TextOf(*value);
    // The braces are optional.
    if (text.starts_with(L'{') && text.ends_with(L'}')) text = text.substr(1, text.size() - 2);
    if (kind->family != nullptr) {
      Hint(prefix + kTrigger, Shown(*value), L"no such member",
           L"package subscriptions raise no trigger and send the message");
    } else if (IsUuid(text)) {
      Good(prefix + kTrigger, L"raises the trigger and sends no message");
    } else {
      Never(prefix + kTrigger, Shown(*value),
            L"a GUID, such as \"{01234567-89ab-cdef-0123-456789abcdef}\"",
            L"is not a GUID, so no trigger is raised");
    }
    return kind->family == nullptr;
  }

  void CheckProgram(const std::wstring& key, const std::wstring& path) {
    using Tessel::Server::Records::Reason;
    const Reason why = Tessel::Security::TrustedProgram::WhyNotOpened(path);
    if (why != Reason::None) {
      constexpr std::size_t kIt = 3;  // the key replaces "it "
      NotOpened(key, path, NameOf(why).text + kIt);
      return;
    }
    const Tessel::Security::VxAuthenticodeHelper helper;
    const auto attributes = Platform::CurrentMachine().files->Attributes(path);
    const std::wstring found = Shortened(Quoted(path));
    bool sound = true;
    const auto fault = [&](const std::wstring& wanted, const std::wstring& text) {
      Never(key, found, wanted, text);
      sound = false;
    };
    if (attributes && (*attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      fault(L"the program's path", L"is a folder");
      return;
    }
    const bool isFile = static_cast<bool>(attributes);
    if (!isFile) fault(L"the program's path", L"there is no such file");
    // Without a file, only the path itself can be checked.
    const auto isAllowed = [&](const std::wstring& written) {
      return isFile ? helper.IsPathAllowed(written) : helper.MayBeAllowed(written);
    };
    if (!isAllowed(path)) {
      const auto full = Platform::CurrentMachine().files->FullPath(path);
      if (full && isAllowed(*full)) {
        fault(Quoted(*full), L"is not written as Windows writes it");
      } else {
        fault(
            L"a place below %windir%, %ProgramFiles%, %ProgramFiles(x86)% or a WindowsApps folder",
            L"is outside the protected places");
      }
    }
    if (isFile) CheckSignatures(key, path, fault);
    if (sound) Good(key, L"the program is trusted here");
  }

  void NotOpened(const std::wstring& key, const std::wstring& path, std::wstring why) {
    std::wstring wanted = L"a path such as \"C:\\\\Program Files\\\\Maker\\\\Tool.exe\"";
    if (path.empty()) {
      wanted = L"the program's full path";
      why = L"is empty";
    } else if (path.find(L'"') != std::wstring::npos) {
      wanted = L"only the path, with its arguments in \"arguments\"";
      why = L"a path must not contain quotation marks";
    } else if (path.find(L'%') != std::wstring::npos) {
      const auto expanded =
          Platform::CurrentMachine().environment->Expand(path, Platform::kLongestPath);
      wanted = expanded ? Quoted(*expanded) : L"";
      why = L"variables are not expanded";
    }
    Never(key, Shortened(Quoted(path)), wanted, why);
  }

  template <typename Fault>
  void CheckSignatures(const std::wstring& key, const std::wstring& path, const Fault& fault) {
    const Tessel::Security::FileTrust trust = Tessel::Security::VerifyFile(path, keys);
    const std::vector<Tessel::Security::SignatureRecord>& records = trust.signatures;
    const std::vector<Certificate> certificates = CertificatesIn(path);
    if (records.empty() && certificates.empty()) {
      fault(kPinnedSignature, L"is not signed");
    } else if (records.empty()) {
      const auto result = Platform::CurrentMachine().trustProvider->VerifyEmbedded(path, 0).result;
      if (result == kChanged) {
        fault(L"the file as it was signed", L"was changed after it was signed");
      } else {
        fault(kPinnedSignature,
              L"has a signature that Windows rejects: " + Wide(DescribeResult(result)));
      }
    } else if (keys.empty()) {
      fault(L"a module with pinned keys", L"no keys are pinned, so nothing is trusted");
    }
    if (records.empty() || keys.empty()) return;
    std::wstring signers;
    for (const auto& record : records) {
      signers += (signers.empty() ? L"\"" : L", \"") + record.names.commonName + L"\"";
    }
    if (!trust.trustedByWindows) {
      fault(L"a root that Windows trusts",
            L"Windows does not trust the root of its signers " + signers);
    }
    if (!trust.keyPinned) {
      fault(kPinnedSignature, L"is signed with another key, by " + signers);
      return;
    }
    const std::uint64_t now = Platform::CurrentMachine().clock->UtcFileTime();
    for (const auto& record : records) {
      const Certificate* certificate = CertificateOf(certificates, record.public_key);
      if (certificate == nullptr || DaysLeft(*certificate, now) >= 0) continue;
      Hint(key, L"\"" + record.names.commonName + L"\"",
           L"a certificate for the same key that is still valid, or a time stamp",
           L"is signed with a certificate that expired on " + EndDate(*certificate) +
               L", which the module accepts");
    }
  }

  Tessel::Security::KeySet keys;
  std::vector<Finding>& findings;
  const SubscriptionForm* kind = nullptr;
  std::optional<std::uint32_t> code;
  bool readable = true;
};

}  // namespace

bool SubscriptionCheck::Runs() const {
  return std::ranges::find(findings, Verdict::Never, &Finding::verdict) == findings.end();
}

SubscriptionCheck CheckSubscription(const std::wstring& text, Tessel::Security::KeySet keys) {
  SubscriptionCheck check;
  Checker checker(keys, check);
  Json::WideDocument document;
  Json::ParseFault fault;
  if (text.size() > kMaxRequestLength) {
    checker.Never(L"", std::to_wstring(text.size()) + L" characters",
                  L"at most " + std::to_wstring(kMaxRequestLength), L"is too long for the module");
  } else if (!Json::ParseJson(document, text, Json::kMaxNesting, &fault)) {
    checker.Never(L"", L"", L"valid JSON", L"not valid JSON: " + Wide(FaultText(text, fault)));
  } else if (!document.IsObject()) {
    checker.Never(L"", Shown(document), L"an object", L"not a JSON object");
  } else {
    checker.Request(document);
    checker.AskModule(text);
  }
  return check;
}

}  // namespace Vx::Hosting::Tool
