#include "vxhost/play/machine_steps.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cwchar>
#include <deque>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "hosting/text.h"

namespace Vx::Host {

namespace {

using Json::WideValue;
using Simulator::SimulatedMachine;
using std::chrono::seconds;

constexpr std::chrono::seconds kUninstallLength{1};
constexpr wchar_t kPolicyKey[] = L"SOFTWARE\\Policies\\Vx\\Consent";

// The value of a step, and what it changes.
struct Change {
  const WideValue& value;
  const Expander& expand;
  SimulatedMachine& machine;

  const WideValue* Find(const wchar_t* key) const { return Host::FindMember(value, key); }
  std::wstring Text(const wchar_t* key) const { return expand(Member(value, key)); }
};

// Seconds, which may have a fraction.
Simulator::VirtualClock::Duration Length(const WideValue& value) {
  return std::chrono::duration_cast<Simulator::VirtualClock::Duration>(
      std::chrono::duration<double>(value.GetDouble()));
}

void EndOobe(const Change& change) {
  SimulatedMachine& machine = change.machine;
  machine.system.EndOobeAt(machine.clock.Elapsed() + Length(change.value));
}

void SetOobeKnown(const Change& change) {
  change.machine.system.SetOobeKnown(change.value.GetBool());
}

// "3rd"
std::wstring Ordinal(unsigned number) {
  static constexpr const wchar_t* kEnds[] = {L"th", L"st", L"nd", L"rd"};
  const unsigned last = number / 10 % 10 == 1 ? 0 : number % 10;
  return std::to_wstring(number) + kEnds[last < std::size(kEnds) ? last : 0];
}

// Takes a name, or a name and the number of calls that still succeed.
void Refuse(const Change& change) {
  RequireRefusal(change.machine);
  const bool first = change.value.IsString();
  const std::wstring call = first ? change.expand(change.value) : change.Text(L"call");
  const unsigned after = first ? 0 : Member(change.value, L"after").GetUint();
  change.machine.faults.FailNamed(Utf8(call), after);
  change.machine.timeline.Add(
      L"Windows refuses " + (call.empty() ? L"nothing" : call) +
      (after == 0 ? L" from now on" : L" from the " + Ordinal(after + 1) + L" call on"));
}

void RemoveApiSet(const Change& change) {
  change.machine.system.RemoveApiSet(change.expand(change.value));
}

void DetachConsole(const Change& change) {
  change.machine.users.DetachConsole();
}

void LogOn(const Change& change) {
  change.machine.users.LogOn(change.expand(change.value));
}

void LogOff(const Change& change) {
  change.machine.users.LogOff();
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

// One status for each of the next messages. The last one stays in effect.
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

void SetTriggerStatus(const Change& change) {
  change.machine.system.SetTriggerStatus(change.value.GetUint());
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
  std::string block = Utf8(change.expand(change.value));
  block.resize(kBlock);
  change.machine.firmware.SetWarrantyBlock(std::move(block));
}

// One step of WMI at a time; an empty object ends it.
void FailFirmware(const Change& change) {
  change.machine.firmware.ClearFailures();
  const WideValue* after = change.Find(L"after");
  if (change.Find(L"step") == nullptr) return;
  const unsigned long result = std::wcstoul(change.Text(L"result").c_str(), nullptr, 16);
  change.machine.firmware.FailAfter(Utf8(change.Text(L"step")),
                                    after == nullptr ? 0 : after->GetUint(),
                                    static_cast<std::int32_t>(result));
}

void AddFile(const Change& change) {
  change.machine.files.Add(change.Text(L"path"), Utf8(change.Text(L"text")));
}

void SetLockdownMode(const Change& change) {
  change.machine.system.SetLockdownMode(change.value.GetInt());
}

void SleepFor(const Change& change) {
  change.machine.SleepFor(Length(change.value));
}

void SetStandby(const Change& change) {
  change.machine.SetStandby(change.value.GetBool());
}

// Takes a path, or a path and how the signature differs from a good one of a pinned key.
void Sign(const Change& change) {
  if (change.value.IsString()) {
    change.machine.Sign(change.expand(change.value), {});
    return;
  }
  Simulator::SimulatedSignature signature;
  if (change.Find(L"key") != nullptr) signature.key = change.Text(L"key");
  if (change.Find(L"result") != nullptr) {
    signature.result =
        static_cast<std::int32_t>(std::wcstoul(change.Text(L"result").c_str(), nullptr, 16));
  }
  change.machine.Sign(change.Text(L"path"), signature);
}

// The values of the maker's policy; null removes one.
void SetPolicy(const Change& change) {
  for (auto value = change.value.MemberBegin(); value != change.value.MemberEnd(); ++value) {
    const std::wstring name = change.expand(value->name);
    if (value->value.IsNull()) {
      change.machine.registry.Remove(kPolicyKey, name);
    } else {
      change.machine.registry.SetText(kPolicyKey, name, change.expand(value->value));
    }
  }
}

constexpr PartRule kRefusal[] = {{.key = L"call", .form = PartForm::SomeText, .required = true},
                                 {.key = L"after", .form = PartForm::Count, .required = true}};
constexpr PartRule kRegistryValue[] = {
    {.key = L"key", .form = PartForm::SomeText, .required = true},
    {.key = L"value", .form = PartForm::Text, .required = true},
    {.key = L"text", .form = PartForm::Text}};
constexpr PartRule kFirmwareFailure[] = {{.key = L"step", .form = PartForm::SomeText},
                                         {.key = L"result", .form = PartForm::Hex},
                                         {.key = L"after", .form = PartForm::Count}};
constexpr PartRule kFile[] = {{.key = L"path", .form = PartForm::SomeText, .required = true},
                              {.key = L"text", .form = PartForm::Text, .required = true}};
constexpr PartRule kSignature[] = {{.key = L"path", .form = PartForm::SomeText, .required = true},
                                   {.key = L"key", .form = PartForm::SomeText},
                                   {.key = L"result", .form = PartForm::Hex}};
constexpr PartRule kInstallation[] = {
    {.key = L"family", .form = PartForm::SomeText, .required = true},
    {.key = L"fullName", .form = PartForm::SomeText, .required = true},
    {.key = L"user", .form = PartForm::SomeText}};
constexpr PartRule kRemoval[] = {{.key = L"family", .form = PartForm::SomeText, .required = true},
                                 {.key = L"user", .form = PartForm::SomeText, .required = true},
                                 {.key = L"seconds", .form = PartForm::Seconds}};

constexpr PartRule Rule(const wchar_t* key, PartForm form) {
  return {.key = key, .form = form, .needs = PartNeeds::SimulatedMachine};
}

template <std::size_t Count>
constexpr PartRule Rule(const wchar_t* key, PartForm form, const PartRule (&members)[Count]) {
  return {.key = key,
          .form = form,
          .members = members,
          .memberCount = Count,
          .needs = PartNeeds::SimulatedMachine};
}

constexpr PartRule kAdvance = Rule(L"advance", PartForm::Seconds);

// In the order in which the changes of one step are made.
constexpr struct {
  PartRule rule;
  void (*make)(const Change&) = nullptr;
} kChanges[] = {
    {Rule(L"refuse", PartForm::TextOrObject, kRefusal), &Refuse},
    {Rule(L"sleep", PartForm::Seconds), &SleepFor},
    {Rule(L"standby", PartForm::Boolean), &SetStandby},
    {Rule(L"oobeEndsAfter", PartForm::Seconds), &EndOobe},
    {Rule(L"oobeKnown", PartForm::Boolean), &SetOobeKnown},
    {Rule(L"missingApiSet", PartForm::SomeText), &RemoveApiSet},
    {Rule(L"registry", PartForm::Object, kRegistryValue), &SetRegistry},
    {Rule(L"firmwareDigits", PartForm::Digits), &ReplaceFirmware},
    {Rule(L"warrantyBlock", PartForm::Text), &SetWarrantyBlock},
    {Rule(L"firmwareFails", PartForm::Object, kFirmwareFailure), &FailFirmware},
    {Rule(L"file", PartForm::Object, kFile), &AddFile},
    {Rule(L"trust", PartForm::TextOrObject, kSignature), &Sign},
    {Rule(L"policy", PartForm::Texts), &SetPolicy},
    {Rule(L"lockdownMode", PartForm::Number), &SetLockdownMode},
    {Rule(L"appServiceStatus", PartForm::Numbers), &SetAppServiceStatus},
    {Rule(L"triggerStatus", PartForm::Count), &SetTriggerStatus},
    {Rule(L"logOff", PartForm::True), &LogOff},
    {Rule(L"noConsole", PartForm::True), &DetachConsole},
    {Rule(L"logOn", PartForm::SomeText), &LogOn},
    {Rule(L"install", PartForm::Object, kInstallation), &Install},
    {Rule(L"uninstall", PartForm::Object, kRemoval), &Uninstall},
};

}  // namespace

const WideValue& Member(const WideValue& object, const wchar_t* key) {
  const WideValue* member = FindMember(object, key);
  if (member == nullptr) throw std::runtime_error("a step lacks \"" + Utf8(key) + "\"");
  return *member;
}

const PartRule* FindMachineRule(const std::wstring& key) {
  if (key == kAdvance.key) return &kAdvance;
  const auto* found = std::find_if(std::begin(kChanges), std::end(kChanges),
                                   [&key](const auto& change) { return key == change.rule.key; });
  return found == std::end(kChanges) ? nullptr : &found->rule;
}

std::vector<std::string> MachineKeys() {
  std::vector<std::string> keys = {Utf8(kAdvance.key)};
  for (const auto& change : kChanges) keys.push_back(Utf8(change.rule.key));
  return keys;
}

void RequireRefusal(const SimulatedMachine& machine) {
  const std::string call = machine.faults.Unused();
  if (!call.empty()) throw std::runtime_error("no call \"" + call + "\" was refused");
}

void ChangeMachine(const WideValue& step, const Expander& expand, SimulatedMachine& machine) {
  for (const auto& change : kChanges) {
    const WideValue* found = FindMember(step, change.rule.key);
    if (found != nullptr) change.make({*found, expand, machine});
  }
}

void PassTime(const WideValue& step, SimulatedMachine& machine) {
  const WideValue* found = FindMember(step, kAdvance.key);
  if (found != nullptr) machine.clock.Advance(Length(*found));
  machine.clock.Settle();
}

}  // namespace Vx::Host
