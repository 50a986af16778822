#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "servicehost/service_log.h"

namespace Vx::Host {

// The event log of Windows, as the service writes to it.
class EventJournal {
 public:
  // Message, provider, client and thread: what the message file puts into its text.
  using Texts = std::array<std::wstring, 4>;

  virtual ~EventJournal() = default;

  // Adds a record of the EVENTLOG_ type with the message `id` of host_messages.mc. False if Windows
  // refuses it.
  virtual bool Report(std::uint16_t type, std::uint32_t id, const Texts& texts) noexcept = 0;
};

// That of this machine, for the source of this name.
std::unique_ptr<EventJournal> OpenEventJournal(const std::wstring& source);

// Writes to the event log what an operator acts on: the warnings and errors of the host itself, and
// as a warning each delivery whose command did not run. The levels of the module do not tell: a
// launch that went well has errors. What Windows refuses does not count as lost, because the log
// files have it.
class EventLogTarget final : public LogTarget {
 public:
  explicit EventLogTarget(std::unique_ptr<EventJournal> where) : journal(std::move(where)) {}

  bool Write(const LogEntry& entry) noexcept override;

 private:
  std::unique_ptr<EventJournal> journal;
};

// Registers the source `name` of the log "Application" with the message file `program`, so that the
// event viewer finds its texts. Throws std::runtime_error.
void AddEventSource(const std::wstring& name, const std::wstring& program);
// Does nothing if there is no such source.
void RemoveEventSource(const std::wstring& name) noexcept;

}  // namespace Vx::Host
