#include "hosting/module_log.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iterator>
#include <map>
#include <mutex>
#include <utility>

#include <windows.h>

namespace Vx::Hosting {

namespace {

constexpr wchar_t kNoSink[] =
    L"the module logs through a library without VxSetLogSink, so its lines are not in this log";

constexpr const wchar_t* kLevels[] = {L"INFO", L"WARNING", L"ERROR"};
constexpr std::uint32_t kWarning = 1;

// Returns the member, or zero if the struct is too short to contain it.
template <typename Struct, typename Value>
Value Read(const Struct& all, Value Struct::*member) {
  const auto* const end = reinterpret_cast<const std::byte*>(&(all.*member) + 1);
  const auto size = static_cast<std::size_t>(end - reinterpret_cast<const std::byte*>(&all));
  return size <= all.size ? all.*member : Value{};
}

std::mutex runningLock;
std::map<DWORD, CommandResult*> running;  // by the ID of the thread that runs the command

template <typename Struct>
std::wstring ReadText(const Struct& all, const wchar_t* Struct::*member) {
  const wchar_t* const text = Read(all, member);
  return text != nullptr ? text : L"";
}

}  // namespace

const wchar_t* LevelName(std::uint32_t level) {
  return kLevels[std::min<std::size_t>(level, std::size(kLevels) - 1)];
}

LogLine LineOf(const VxLogLine& line) {
  LogLine copy{.level = LevelName(Read(line, &VxLogLine::level)),
               .provider = ReadText(line, &VxLogLine::provider),
               .caller = ReadText(line, &VxLogLine::caller),
               .message = ReadText(line, &VxLogLine::text)};
  if (const VxLogRecord* const record = Read(line, &VxLogLine::record); record != nullptr) {
    copy.record = RecordOf(*record);
  }
  return copy;
}

DecisionRecord RecordOf(const VxLogRecord& record) {
  DecisionRecord copy;
  for (const auto& member : kRecordTexts) copy.*member.text = ReadText(record, member.source);
  copy.number = Read(record, &VxLogRecord::number);
  copy.status = Read(record, &VxLogRecord::status);
  copy.process = Read(record, &VxLogRecord::process);
  copy.delivery = Read(record, &VxLogRecord::delivery);
  copy.milliseconds = Read(record, &VxLogRecord::milliseconds);
  return copy;
}

DecisionScope::DecisionScope(CommandResult& result) {
  const std::lock_guard guard(runningLock);
  running[GetCurrentThreadId()] = &result;
}

DecisionScope::~DecisionScope() {
  const std::lock_guard guard(runningLock);
  running.erase(GetCurrentThreadId());
}

void NoteDecision(const VxLogRecord& record) {
  if (ReadText(record, &VxLogRecord::kind) != L"command") return;
  const std::lock_guard guard(runningLock);
  const auto mine = running.find(GetCurrentThreadId());
  if (mine == running.end()) return;
  mine->second->decision = ReadText(record, &VxLogRecord::decision);
  mine->second->reason = ReadText(record, &VxLogRecord::reason);
}

ModuleLog::ModuleLog(const LoadedModule& module, Receiver function)
    : receiver(std::move(function)),
      setSink{reinterpret_cast<VxSetLogSinkFunction>(module.Find("VxSetLogSink"))} {
  if (setSink != nullptr) {
    setSink(&Take, this);
    return;
  }
  const VxLogLine warning{.size = sizeof warning,
                          .level = kWarning,
                          .thread = GetCurrentThreadId(),
                          .provider = kHostProvider,
                          .caller = L"",
                          .text = kNoSink,
                          .record = nullptr};
  Take(&warning, this);
}

ModuleLog::~ModuleLog() {
  if (setSink != nullptr) setSink(nullptr, nullptr);
}

void ModuleLog::Take(const VxLogLine* line, void* context) noexcept {
  try {
    const VxLogRecord* const record = Read(*line, &VxLogLine::record);
    if (record != nullptr) NoteDecision(*record);
    static_cast<ModuleLog*>(context)->receiver(*line);
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): see the header
  }
}

}  // namespace Vx::Hosting
