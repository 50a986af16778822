#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "simulator/virtual_clock.h"

namespace Vx::Simulator {

// The events of a simulated machine in order, with their virtual times. Thread-safe.
class Timeline {
 public:
  struct Entry {
    VirtualClock::Duration at{};  // VirtualClock::Moment
    std::wstring text;
  };
  using Listener = std::function<void(const Entry&)>;

  explicit Timeline(const VirtualClock& timeOf) : clock(timeOf) {}
  Timeline(const Timeline&) = delete;
  Timeline& operator=(const Timeline&) = delete;

  void Add(std::wstring text);

  // Called with each new entry on the thread that adds it, one at a time. Must not add entries.
  void SetListener(Listener function);

  // Returns the entries, each as "61.000 text".
  std::vector<std::wstring> Lines() const;

 private:
  const VirtualClock& clock;
  mutable std::mutex mutex;
  std::vector<Entry> entries;
  Listener listener;
};

// Returns a moment in the form "61.000".
std::wstring FormatMoment(VirtualClock::Duration moment);

// Returns an entry in the form "61.000 text".
std::wstring Format(const Timeline::Entry& entry);

}  // namespace Vx::Simulator
