#pragma once

#include <functional>
#include <string>
#include <utility>

#include "host/logging.h"

namespace Vx::Tests {

// Runs an action on the thread that logs a line with `text` for the `time`th time, at that moment.
class LogTrap {
 public:
  LogTrap(std::wstring text, int time, std::function<void()> action)
      : sink(Tessel::Server::Logging::LogManager::AddSink(
            [wanted = std::move(text), left = time,
             run = std::move(action)](const Tessel::Server::Logging::LogRecord& record) mutable {
              if (record.message.find(wanted) != record.message.npos && --left == 0) run();
            })) {}
  LogTrap(const LogTrap&) = delete;
  LogTrap& operator=(const LogTrap&) = delete;
  ~LogTrap() { Tessel::Server::Logging::LogManager::RemoveSink(sink); }

 private:
  Tessel::Server::Logging::LogManager::SinkId sink;
};

}  // namespace Vx::Tests
