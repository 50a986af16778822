#pragma once

#include "servicehost/service_log.h"
#include "support/test.h"

namespace Vx::Hosting::ServiceHost {

template <typename... Targets>
std::vector<std::unique_ptr<LogTarget>> TargetsOf(std::unique_ptr<Targets>... each) {
  std::vector<std::unique_ptr<LogTarget>> targets;
  (targets.push_back(std::move(each)), ...);
  return targets;
}

// Calls a function with each entry.
class Target : public LogTarget {
 public:
  explicit Target(std::function<void(const LogEntry&)> taker) : take(std::move(taker)) {}
  void Write(const LogEntry& entry) override { take(entry); }

 private:
  std::function<void(const LogEntry&)> take;
};

// What a ServiceLog writes, each line as "LEVEL caller: message". Any thread.
class LogLines {
 public:
  std::vector<std::unique_ptr<LogTarget>> Targets() {
    return TargetsOf(std::make_unique<Target>([this](const LogEntry& entry) {
      const std::lock_guard guard(lock);
      text += entry.line.level + L" " + entry.line.caller + L": " + entry.line.message + L"\n";
    }));
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
