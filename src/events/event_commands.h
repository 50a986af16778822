#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "json/json_object.h"
#include "records/record.h"
#include "security/trusted_program.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The HRESULT for an unknown action.
inline constexpr std::int32_t kUnknownAction = 0x20000007;

enum class EventAction : std::uint32_t { Launch = 1, AppServiceNotification = 2 };

// The command that a subscription runs when its event occurs. May run any number of times and on
// any thread, but not on two at once.
//
// The vtable layout is a fixed contract that has no slot for a destructor. A shared pointer deletes
// a command through its concrete class.
class EventCommand {
 public:
  // Runs the command, blocks until it is done and returns the outcome. May throw
  // Platform::WindowsRuntimeError and std::exception.
  virtual Records::Outcome Execute() = 0;

  // Returns the delay in seconds before the command runs, as the client wrote it, or "0" if absent.
  std::wstring DelayDeliverySec() const { return delayDeliverySec; }

  // Returns the GUID of the trigger that a power or platform event raises instead of running the
  // command, or an empty string if there is none.
  std::wstring CustomTriggerGUID() const { return customTriggerGuid; }

  // Returns the program's path, or "FAMILY/APP SERVICE" for a message.
  const std::wstring& Target() const noexcept { return target; }

 protected:
  ~EventCommand() = default;

  std::wstring delayDeliverySec;
  std::wstring customTriggerGuid;
  std::wstring target;
};

// A command for a package event. Some may run late: when the service starts, for a package that was
// uninstalled while the service was not running.
class PackageEventCommand : public EventCommand {
 public:
  virtual bool RunIfUninstalledWhileNotRunning() { return false; }

 protected:
  ~PackageEventCommand() = default;
};

using EventCommandPtr = std::shared_ptr<EventCommand>;

// Called with an empty string, on the system's catalog thread, after a package command has run.
using CompletionHandler = std::function<void(const std::wstring&)>;

// Starts a program as SYSTEM in the console user's session, if the program is trusted.
class LaunchCommand final : public PackageEventCommand {
 public:
  // Reads "path" (required), "arguments" (empty unless it is a string) and "delayDeliverySec" ("0"
  // if absent). Throws Platform::WindowsRuntimeError with a code from the JSON layer, or
  // E_INVALIDARG if the arguments contain a null character.
  explicit LaunchCommand(const Json::JsonObject& parameters);

  // TakeTurn (below) for a launch. The next Execute uses its check of the program.
  std::unique_lock<std::mutex> TakeTurn(std::mutex& turn);

  // Locks the file before the trust check and keeps it locked until the program starts.
  Records::Outcome Execute() override;
  bool RunIfUninstalledWhileNotRunning() override { return true; }

  std::wstring Path() const { return path; }
  std::wstring Arguments() const { return arguments; }

 private:
  std::wstring path;
  std::wstring arguments;
  std::optional<Security::ProgramCheck> checked;  // the result of TakeTurn, for the next Execute
};

// Sends a JSON message to the app service of a packaged app.
class AppServiceNotificationCommand final : public EventCommand {
 public:
  // Reads "packageFamilyName", "appServiceName" and "payload" (required), "delayDeliverySec" ("0"
  // if absent) and, inside the payload, "customTriggerGUID" (empty unless it is a string). Throws
  // Platform::WindowsRuntimeError with a code from the JSON layer.
  explicit AppServiceNotificationCommand(const Json::JsonObject& parameters);

  Records::Outcome Execute() override;

  std::wstring PackageFamilyName() const { return packageFamilyName; }
  std::wstring AppServiceName() const { return appServiceName; }
  Json::JsonObject Payload() const { return payload; }

 private:
  std::wstring packageFamilyName;
  std::wstring appServiceName;
  Json::JsonObject payload;
};

// Creates the command for an action from its parameters. Throws Platform::WindowsRuntimeError with
// kUnknownAction or a code from the command's constructor.
EventCommandPtr CreateEventCommand(EventAction action, const Json::JsonObject& parameters);

// Acquires `turn`, which serializes the commands of a kind. A launch checks its program before it
// waits, so that other commands do not wait for the check. The program stays locked for at most one
// second of the wait, because it cannot be updated while it is locked. It is then unlocked, and
// rechecked once `turn` is acquired, which is quick for an unchanged file. A changed file is
// checked like a new one, with `turn` released. After a second change, the program stays locked
// until `turn` is acquired.
std::unique_lock<std::mutex> TakeTurn(EventCommand& command, std::mutex& turn);

}  // namespace Vx::Tessel::Server::Services::Orvane
