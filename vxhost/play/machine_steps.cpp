#include "vxhost/play/machine_steps.h"

#include <chrono>
#include <cstdint>
#include <cwchar>
#include <deque>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "hosting/text.h"

namespace Vx::Hosting::Tool {

namespace {

using Json::WideValue;
using Simulator::SimulatedMachine;

constexpr std::chrono::seconds kUninstallLength{1};
constexpr wchar_t kPolicyKey[] = L"SOFTWARE\\Policies\\Vx\\Consent";

// A part's value and the machine that it changes.
struct Change {
  const WideValue& value;
  const Definitions& definitions;
  SimulatedMachine& machine;

  const WideValue* Find(const wchar_t* key) const { return FindMember(value, key); }
  std::wstring Text() const { return Expanded(value, definitions); }
  std::wstring Text(const wchar_t* key) const { return MemberText(value, key, definitions); }
  // Returns the HRESULT that Windows will return. Throws std::runtime_error if there is none.
  std::int32_t Result() const {
    if (Find(L"result") == nullptr) throw std::runtime_error("a step lacks \"result\"");
    return static_cast<std::int32_t>(std::wcstoul(Text(L"result").c_str(), nullptr, 16));
  }
};

// Converts seconds, which may be fractional.
Simulator::VirtualClock::Duration Length(const WideValue& value) {
  return std::chrono::duration_cast<Simulator::VirtualClock::Duration>(
      std::chrono::duration<double>(value.GetDouble()));
}

void EndOobe(const Change& change) {
  SimulatedMachine& machine = change.machine;
  machine.system.EndOobeAt(machine.clock.Elapsed() + Length(change.value));
}

// Returns "3rd", for example.
std::wstring Ordinal(unsigned number) {
  static constexpr const wchar_t* kEnds[] = {L"th", L"st", L"nd", L"rd"};
  const unsigned last = number / 10 % 10 == 1 ? 0 : number % 10;
  return std::to_wstring(number) + kEnds[last < std::size(kEnds) ? last : 0];
}

// Makes a call fail. The value is its name, or the name and how many calls succeed first.
void Refuse(const Change& change) {
  RequireRefusal(change.machine);
  const bool first = change.value.IsString();
  const std::wstring call = first ? change.Text() : change.Text(L"call");
  const unsigned after = first ? 0 : change.value[L"after"].GetUint();
  change.machine.faults.FailNamed(Utf8(call), after);
  change.machine.timeline.Add(
      L"Windows refuses " + (call.empty() ? L"nothing" : call) +
      (after == 0 ? L" from now on" : L" from the " + Ordinal(after + 1) + L" call on"));
}

void Install(const Change& change) {
  const Simulator::SimulatedPackage package{
      .familyName = change.Text(L"family"), .fullName = change.Text(L"fullName"), .folder = {}};
  if (change.Find(L"user") == nullptr) {
    change.machine.packages.Stage(package);
    return;
  }
  change.machine.packages.Install(package, change.machine.users.Add(change.Text(L"user")).name);
}

void Uninstall(const Change& change) {
  const WideValue* length = change.Find(L"seconds");
  change.machine.packages.Uninstall(change.Text(L"family"), change.Text(L"user"),
                                    length == nullptr ? kUninstallLength : Length(*length));
}

// The value is one status, or one for each of the next messages. The last stays in effect.
void SetAppServiceStatus(const Change& change) {
  if (!change.value.IsArray()) {
    change.machine.appServices.SetReplies({}, {change.value.GetInt(), L""});
    return;
  }
  std::deque<Simulator::SimulatedAppServices::Reply> replies;
  for (const WideValue& status : change.value.GetArray()) {
    replies.emplace_back(status.GetInt(), L"");
  }
  change.machine.appServices.SetReplies(replies, replies.back());
}

void SetRegistry(const Change& change) {
  const std::wstring key = change.Text(L"key");
  const std::wstring value = change.Text(L"value");
  if (change.Find(L"text") == nullptr) {
    change.machine.registry.Remove(key, value);
  } else {
    change.machine.registry.SetText(key, value, change.Text(L"text"));
  }
}

void ReplaceFirmware(const Change& change) {
  using Digits = Simulator::SimulatedFirmware::Digits;
  const int digits = change.value.GetInt();
  change.machine.firmware.Replace(digits == 6 ? Digits::Six : Digits::Eight);
}

void SetWarrantyBlock(const Change& change) {
  constexpr std::size_t kBlock = 128;  // bytes
  std::string block = Utf8(change.Text());
  block.resize(kBlock);
  change.machine.firmware.SetWarrantyBlock(std::move(block));
}

// Makes one WMI step fail. An empty object ends the failure.
void FailFirmware(const Change& change) {
  change.machine.firmware.ClearFailures();
  const WideValue* after = change.Find(L"after");
  if (change.Find(L"step") == nullptr) return;
  change.machine.firmware.FailAfter(Utf8(change.Text(L"step")),
                                    after == nullptr ? 0 : after->GetUint(), change.Result());
}

void AddFile(const Change& change) {
  change.machine.files.Add(change.Text(L"path"), Utf8(change.Text(L"text")));
}

// The value is a path, or a path and how its signature differs from a valid one with a pinned key.
void Sign(const Change& change) {
  if (change.value.IsString()) {
    change.machine.Sign(change.Text(), {});
    return;
  }
  Simulator::SimulatedSignature signature;
  if (change.Find(L"key") != nullptr) signature.key = change.Text(L"key");
  if (change.Find(L"result") != nullptr) signature.result = change.Result();
  change.machine.Sign(change.Text(L"path"), signature);
}

// Sets values of the maker's policy. A null value removes one.
void SetPolicy(const Change& change) {
  for (auto value = change.value.MemberBegin(); value != change.value.MemberEnd(); ++value) {
    const std::wstring name = Expanded(value->name, change.definitions);
    if (value->value.IsNull()) {
      change.machine.registry.Remove(kPolicyKey, name);
    } else {
      change.machine.registry.SetText(kPolicyKey, name, Expanded(value->value, change.definitions));
    }
  }
}

constexpr PartRule kRefusal[] = {Required(L"call", kSomeText), Required(L"after", kCount)};
constexpr PartRule kRegistryValue[] = {
    Required(L"key", kSomeText), Required(L"value", kText), {L"text", &kText}};
constexpr PartRule kFirmwareFailure[] = {
    {L"step", &kSomeText}, {L"result", &kHex}, {L"after", &kCount}};
constexpr PartRule kFile[] = {Required(L"path", kSomeText), Required(L"text", kText)};
constexpr PartRule kSignature[] = {
    Required(L"path", kSomeText), {L"key", &kSomeText}, {L"result", &kHex}};
constexpr PartRule kInstallation[] = {
    Required(L"family", kSomeText), Required(L"fullName", kSomeText), {L"user", &kSomeText}};
constexpr PartRule kRemoval[] = {
    Required(L"family", kSomeText), Required(L"user", kSomeText), {L"seconds", &kSeconds}};

constexpr PartRule kAdvance = {L"advance", &kSeconds};

// In the order in which a step's changes are made.
constexpr struct {
  PartRule rule;
  void (*make)(const Change&) = nullptr;
} kChanges[] = {
    {RuleWith(L"refuse", kTextOrObject, kRefusal), &Refuse},
    {{L"sleep", &kSeconds},
     [](const Change& change) { change.machine.SleepFor(Length(change.value)); }},
    {{L"standby", &kBoolean},
     [](const Change& change) { change.machine.SetStandby(change.value.GetBool()); }},
    {{L"oobeEndsAfter", &kSeconds}, &EndOobe},
    {{L"oobeKnown", &kBoolean},
     [](const Change& change) { change.machine.system.SetOobeKnown(change.value.GetBool()); }},
    {{L"missingApiSet", &kSomeText},
     [](const Change& change) { change.machine.system.RemoveApiSet(change.Text()); }},
    {RuleWith(L"registry", kObject, kRegistryValue), &SetRegistry},
    {{L"firmwareDigits", &kDigits}, &ReplaceFirmware},
    {{L"warrantyBlock", &kText}, &SetWarrantyBlock},
    {RuleWith(L"firmwareFails", kObject, kFirmwareFailure), &FailFirmware},
    {RuleWith(L"file", kObject, kFile), &AddFile},
    {RuleWith(L"trust", kTextOrObject, kSignature), &Sign},
    {{L"policy", &kTexts}, &SetPolicy},
    {{L"lockdownMode", &kNumber},
     [](const Change& change) { change.machine.system.SetLockdownMode(change.value.GetInt()); }},
    {{L"appServiceStatus", &kNumbers}, &SetAppServiceStatus},
    {{L"triggerStatus", &kCount},
     [](const Change& change) { change.machine.system.SetTriggerStatus(change.value.GetUint()); }},
    {{L"logOff", &kTrue}, [](const Change& change) { change.machine.users.LogOff(); }},
    {{L"noConsole", &kTrue}, [](const Change& change) { change.machine.users.DetachConsole(); }},
    {{L"logOn", &kSomeText},
     [](const Change& change) { change.machine.users.LogOn(change.Text()); }},
    {RuleWith(L"install", kObject, kInstallation), &Install},
    {RuleWith(L"uninstall", kObject, kRemoval), &Uninstall},
};

}  // namespace

std::vector<PartRule> MachineRules() {
  std::vector<PartRule> rules{kAdvance};
  for (const auto& change : kChanges) rules.push_back(change.rule);
  for (PartRule& rule : rules) rule.simulated = true;
  return rules;
}

void RequireRefusal(const SimulatedMachine& machine) {
  const std::string call = machine.faults.Unused();
  if (!call.empty()) throw std::runtime_error("no call \"" + call + "\" was refused");
}

void ChangeMachine(const WideValue& step, const Definitions& definitions,
                   SimulatedMachine& machine) {
  for (const auto& change : kChanges) {
    const WideValue* found = FindMember(step, change.rule.key);
    if (found != nullptr) change.make({*found, definitions, machine});
  }
}

void PassTime(const WideValue& step, SimulatedMachine& machine) {
  const WideValue* found = FindMember(step, kAdvance.key);
  if (found != nullptr) machine.clock.Advance(Length(*found));
  machine.clock.Settle();
}

}  // namespace Vx::Hosting::Tool
