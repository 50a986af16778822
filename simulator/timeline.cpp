#include "simulator/timeline.h"

#include <utility>

namespace Vx::Simulator {

void Timeline::Add(std::wstring text) {
  const std::lock_guard guard(mutex);
  entries.push_back({clock.Moment(), std::move(text)});
  if (listener) listener(entries.back());
}

void Timeline::SetListener(Listener function) {
  const std::lock_guard guard(mutex);
  listener = std::move(function);
}

std::vector<std::wstring> Timeline::Lines() const {
  const std::lock_guard guard(mutex);
  std::vector<std::wstring> lines;
  for (const Entry& entry : entries) lines.push_back(Format(entry));
  return lines;
}

std::wstring FormatMoment(VirtualClock::Duration moment) {
  std::wstring thousandths = std::to_wstring(moment.count() % 1000);
  thousandths.insert(0, 3 - thousandths.size(), L'0');
  return std::to_wstring(moment.count() / 1000) + L"." + thousandths;
}

std::wstring Format(const Timeline::Entry& entry) {
  return FormatMoment(entry.at) + L" " + entry.text;
}

}  // namespace Vx::Simulator
