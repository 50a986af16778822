#include "vxhost/log/play_record.h"

#include <algorithm>

#include <windows.h>

namespace Vx::Hosting::Tool {

const wchar_t* NameOf(Happening what) {
  // In the order of the enumeration.
  static constexpr const wchar_t* kNames[] = {L"call", L"command", L"event", L"log", L"failure"};
  return kNames[static_cast<std::size_t>(what)];
}

void PlayRecord::BeginStep(std::size_t line, const std::wstring& say) {
  const auto moment = now();
  const std::lock_guard guard(mutex);
  steps.push_back({.line = line, .say = say, .begin = moment, .end = moment});
}

void PlayRecord::EndStep() {
  const auto moment = now();
  const std::lock_guard guard(mutex);
  if (!steps.empty()) steps.back().end = moment;
}

void PlayRecord::Add(RecordEntry entry) {
  entry.at = now();
  const bool hasThread = entry.what == Happening::Event || entry.what == Happening::Log;
  if (hasThread) entry.thread = GetCurrentThreadId();
  const std::lock_guard guard(mutex);
  entry.step = steps.size();
  entries.push_back(std::move(entry));
}

bool PlayRecord::Contains(Happening what, const std::wstring& text) const {
  const std::lock_guard guard(mutex);
  return std::ranges::any_of(entries, [&](const RecordEntry& entry) {
    const std::wstring& said = what == Happening::Log ? entry.log.message : entry.text;
    return entry.step == steps.size() && entry.what == what && said.find(text) != said.npos;
  });
}

std::vector<RecordStep> PlayRecord::Steps() const {
  const std::lock_guard guard(mutex);
  return steps;
}

std::vector<RecordEntry> PlayRecord::Entries() const {
  const std::lock_guard guard(mutex);
  return entries;
}

}  // namespace Vx::Hosting::Tool
