#include "vxhost/machine_steps.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cwchar>
#include <deque>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "vxhost/text.h"

namespace Vx::Host {

namespace {

using Json::WideValue;
using Simulator::SimulatedMachine;
using std::chrono::seconds;

constexpr wchar_t kAdvance[] = L"advance";
constexpr std::chrono::seconds kUninstallLength{1};

// The value of a step, and what it changes.
struct Change {
  const WideValue& value;
  const Expander& expand;
  SimulatedMachine& machine;

  const WideValue* Find(const wchar_t* key) const { return Host::Find(value, key); }
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

// Takes a name, or a name and the number of calls that still succeed.
void Refuse(const Change& change) {
  if (change.value.IsString()) {
    change.machine.faults.FailNamed(Utf8(change.expand(change.value)));
    return;
  }
  change.machine.faults.FailNamed(Utf8(change.Text(L"call")),
                                  Member(change.value, L"after").GetUint());
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
  if (replies.empty()) throw std::runtime_error("\"appServiceStatus\" has no status");
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
  if (digits != 6 && digits != 8) throw std::runtime_error("\"firmwareDigits\" is 6 or 8");
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

// In the order in which the changes of one step are made.
constexpr struct {
  const wchar_t* key;
  void (*make)(const Change&);
} kChanges[] = {
    {L"refuse", &Refuse},
    {L"asleep", &SleepFor},
    {L"oobeEndsAfter", &EndOobe},
    {L"oobeKnown", &SetOobeKnown},
    {L"missingApiSet", &RemoveApiSet},
    {L"registry", &SetRegistry},
    {L"firmwareDigits", &ReplaceFirmware},
    {L"warrantyBlock", &SetWarrantyBlock},
    {L"firmwareFails", &FailFirmware},
    {L"file", &AddFile},
    {L"lockdownMode", &SetLockdownMode},
    {L"appServiceStatus", &SetAppServiceStatus},
    {L"triggerStatus", &SetTriggerStatus},
    {L"logOff", &LogOff},
    {L"noConsole", &DetachConsole},
    {L"logOn", &LogOn},
    {L"install", &Install},
    {L"uninstall", &Uninstall},
};

}  // namespace

const WideValue* Find(const WideValue& object, const wchar_t* key) {
  const auto found = object.FindMember(key);
  return found == object.MemberEnd() ? nullptr : &found->value;
}

const WideValue& Member(const WideValue& object, const wchar_t* key) {
  const WideValue* member = Find(object, key);
  if (member == nullptr) throw std::runtime_error("a step lacks \"" + Utf8(key) + "\"");
  return *member;
}

bool IsMachineStep(const std::wstring& key) {
  return key == kAdvance || std::any_of(std::begin(kChanges), std::end(kChanges),
                                        [&key](const auto& change) { return key == change.key; });
}

void ChangeMachine(const WideValue& step, const Expander& expand, SimulatedMachine& machine) {
  for (const auto& change : kChanges) {
    const auto found = step.FindMember(change.key);
    if (found != step.MemberEnd()) change.make({found->value, expand, machine});
  }
}

void PassTime(const WideValue& step, SimulatedMachine& machine) {
  const auto found = step.FindMember(kAdvance);
  if (found != step.MemberEnd()) machine.clock.Advance(Length(found->value));
  machine.clock.Settle();
}

}  // namespace Vx::Host
