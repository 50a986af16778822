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

// What a ServiceLog writes, each line as "LEVEL caller: message". Any thread.
class LogLines {
 public:
  std::vector<std::unique_ptr<LogTarget>> Targets() {
    return TargetsOf(std::make_unique<Target>(*this));
  }

  std::wstring Text() const {
    const std::lock_guard guard(lock);
    return text;
  }

 private:
  class Target final : public LogTarget {
   public:
    explicit Target(LogLines& kept) : lines(kept) {}
    void Write(const LogEntry& entry) override {
      const std::lock_guard guard(lines.lock);
      lines.text +=
          entry.line.level + L" " + entry.line.caller + L": " + entry.line.message + L"\n";
    }

   private:
    LogLines& lines;
  };

  mutable std::mutex lock;
  std::wstring text;
};

}  // namespace Vx::Hosting::ServiceHost
