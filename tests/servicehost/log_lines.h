#pragma once

#include "servicehost/service_log.h"
#include "support/test.h"

namespace Vx::Hosting::ServiceHost {

// Collects the entries that a ServiceLog writes, as lines "LEVEL caller: message". Thread-safe.
class LogLines {
 public:
  std::vector<LogTarget> Targets() {
    return {[this](const LogEntry& entry) {
      const std::lock_guard guard(lock);
      text += entry.line.level + L" " + entry.line.caller + L": " + entry.line.message + L"\n";
    }};
  }

  std::wstring Text() const {
    const std::lock_guard guard(lock);
    return text;
  }

 private:
  mutable std::mutex lock;
  std::wstring text;
};

}  // namespace Vx::Hosting::ServiceHost
