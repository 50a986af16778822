#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "json/json_object.h"
#include "platform/files.h"
#include "records/record.h"
#include "security/trusted_program.h"

namespace Vx::Tessel::Server::Services::Orvane {

// HRESULT of an unknown action.
inline constexpr std::int32_t kUnknownAction = 0x20000007;

enum class EventAction : std::uint32_t { Launch = 1, AppServiceNotification = 2 };

// The command that a subscription runs when its event occurs. May run any number of times, on any
// thread, but by one thread at a time.
//
// The order of the virtual slots is a contract and leaves no room for a virtual destructor, so
// owners delete through CommandDeleter.
class EventCommand {
 public:
  // Runs the command and blocks until it is done. Logs and returns the outcome. May throw
  // Platform::WindowsRuntimeError and std::exception.
  virtual Records::Outcome Execute() = 0;

  // How long a delivery waits before it runs the command: the client's text, "0" if it has none.
  std::wstring DelayDeliverySec() const { return delayDeliverySec; }

  // The trigger that a power or platform event raises in place of the command; empty if none.
  std::wstring CustomTriggerGUID() const { return customTriggerGuid; }

  // The program, or "FAMILY/APP SERVICE". Cut if it is too long for a record.
  const std::wstring& Target() const noexcept { return target; }

 protected:
  ~EventCommand() = default;

  std::wstring delayDeliverySec;
  std::wstring customTriggerGuid;
  std::wstring target;
};

// A command for a package event. It may allow to be run late, at service start, for a package that
// was uninstalled while the service was not running.
class PackageEventCommand : public EventCommand {
 public:
  virtual bool RunIfUninstalledWhileNotRunning() { return false; }

 protected:
  ~PackageEventCommand() = default;
};

// Deletes a command as the class it was created as.
class CommandDeleter {
 public:
  using Destroy = void (*)(EventCommand*);

  CommandDeleter() = default;
  explicit CommandDeleter(Destroy function) : destroy(function) {}

  void operator()(EventCommand* command) const { destroy(command); }

 private:
  Destroy destroy = nullptr;
};

using EventCommandPtr = std::unique_ptr<EventCommand, CommandDeleter>;
using PackageEventCommandPtr = std::unique_ptr<PackageEventCommand, CommandDeleter>;

// Starts a program as SYSTEM in the console user's session, if the program is trusted.
class LaunchCommand final : public PackageEventCommand {
 public:
  // Reads "path" (required), "arguments" (empty unless it is a string) and "delayDeliverySec" ("0"
  // when absent). Throws the JSON layer's Platform::WindowsRuntimeError.
  explicit LaunchCommand(const Json::JsonObject& parameters);

  // Locks and checks the program now instead of in Execute, which the deliveries of an event run
  // one after the other. Returns whether it is trusted. Blocks for as long as the check.
  bool CheckAhead();

  // Lets go of the program that CheckAhead found trusted.
  void ForgetCheck();

  // Locks the program that ForgetCheck let go of and checks it again, as CheckAhead does. Returns
  // false, and reads nothing, if its file has changed.
  bool CheckUnchanged();

  // Keeps the file locked against writing from before the trust check until the program is started.
  Records::Outcome Execute() override;
  bool RunIfUninstalledWhileNotRunning() override { return true; }

  std::wstring Path() const { return path; }
  std::wstring Arguments() const { return arguments; }

 private:
  std::wstring path;
  std::wstring arguments;
  // The result of CheckAhead or CheckUnchanged, used by the next Execute.
  std::optional<Security::ProgramCheck> checked;
  std::optional<Platform::FileIdentity> forgotten;
};

// Sends a JSON message to the app service of a packaged app. Does not report whether it arrived.
class AppServiceNotificationCommand final : public EventCommand {
 public:
  // Reads "packageFamilyName", "appServiceName" and "payload" (required), "delayDeliverySec" ("0"
  // when absent) and, inside the payload, "customTriggerGUID" (empty unless it is a string). Throws
  // the JSON layer's Platform::WindowsRuntimeError.
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

// Creates the command of an action from its parameters. Throws Platform::WindowsRuntimeError with
// kUnknownAction or a code of the JSON layer.
EventCommandPtr CreateEventCommand(EventAction action, const Json::JsonObject& parameters);

// Takes `turn`, under which the commands of a kind run one after the other. Checks the program of a
// launch before, so that the other commands do not wait for its check. The program stays locked for
// a second of the wait at most, because its update would wait too. After that it is checked again
// in its turn, and in an unchanged file that takes no longer than before. A file that has changed
// is checked like a new one, without the turn. After a second change it stays locked until its
// turn.
std::unique_lock<std::mutex> TakeTurn(EventCommand& command, std::mutex& turn);

}  // namespace Vx::Tessel::Server::Services::Orvane
