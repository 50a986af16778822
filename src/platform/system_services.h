#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/result.h"

namespace Vx::Platform {

class ApiSets {
 public:
  virtual ~ApiSets() = default;

  // Returns whether API set `name`, without ".dll", is present, or true if Windows lacks this
  // query.
  virtual bool IsPresent(const std::wstring& name) const = 0;
};

// Windows' session API set. Absent on editions without interactive users.
inline constexpr wchar_t kSessionApiSet[] = L"ext-ms-win-session-wtsapi32-l1-1-0";

// Windows first-run setup.
class Oobe {
 public:
  virtual ~Oobe() = default;

  struct State {
    bool known = false;     // the query succeeded
    bool complete = false;  // meaningful only if known
  };
  virtual State Query() const = 0;
};

// Custom system event triggers, which wake background tasks of packaged apps.
class SystemTriggers {
 public:
  virtual ~SystemTriggers() = default;

  // Raises the trigger with this id (GUID text as the subscriber registered it) and returns the
  // system's status: 0 if raised, 0xC0000002 if this Windows has no custom triggers.
  virtual std::uint32_t Raise(const std::wstring& triggerId) = 0;

  // Returns whether this Windows has custom triggers.
  virtual bool ArePresent() const { return true; }
};

class LockdownPolicy {
 public:
  virtual ~LockdownPolicy() = default;

  // Reads the lockdown mode with the policy library at `fullPath`, loaded for this call only.
  // Returns an HRESULT, negative if the entry point is missing. Leaves `mode` unchanged if the
  // library does not set it. Fails if the library cannot be loaded.
  virtual Result<std::int32_t> QueryMode(const std::wstring& fullPath,
                                         std::int32_t& mode) const = 0;
};

// A connection to a packaged app's app service, through the host's proxy library.
class AppService {
 public:
  virtual ~AppService() = default;

  // Sends `text` and blocks until the reply arrives. Returns a status (0 is success) and the
  // reply's text. May throw standard exceptions.
  virtual std::pair<int, std::wstring> Send(const std::wstring& text) = 0;

  // Notifies the host's app-service layer that the machine has restarted.
  virtual void SystemRestarted() = 0;
};

class AppServices {
 public:
  virtual ~AppServices() = default;

  virtual std::unique_ptr<AppService> Open(const std::wstring& packageFamilyName,
                                           const std::wstring& appServiceName) = 0;
};

// Returns a new UUID as 36 lower-case characters with hyphens, unique on this machine.
Result<std::wstring> NewUuid();

}  // namespace Vx::Platform
