#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "simulator/virtual_clock.h"

namespace Vx::Simulator {

// What happened on a simulated machine, in order, with the virtual moment of each thing. Any
// thread.
class Timeline {
 public:
  struct Entry {
    VirtualClock::Duration at{};  // since the clock was made
    std::wstring text;
  };
  using Listener = std::function<void(const Entry&)>;

  explicit Timeline(const VirtualClock& timeOf) : clock(timeOf) {}
  Timeline(const Timeline&) = delete;
  Timeline& operator=(const Timeline&) = delete;

  void Add(std::wstring text);

  // Called with each new entry on the thread that adds it, one at a time; it must not add.
  void SetListener(Listener function);

  // "61.000 text", one an entry.
  std::vector<std::wstring> Lines() const;

 private:
  const VirtualClock& clock;
  mutable std::mutex mutex;
  std::vector<Entry> entries;
  Listener listener;
};

// "61.000"
std::wstring FormatMoment(VirtualClock::Duration moment);

// "61.000 text"
std::wstring Format(const Timeline::Entry& entry);

}  // namespace Vx::Simulator
