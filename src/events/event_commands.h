#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "json/json_object.h"

namespace Vx::Tessel::Server::Services::Orvane {

// HRESULT of an action that names no command.
inline constexpr std::int32_t kUnknownAction = 0x20000007;

enum class EventAction : std::uint32_t { Launch = 1, AppServiceNotification = 2 };

// What a subscription runs when its event comes. Immutable; may run any number of times, on any
// thread. The slots below are a contract, with no room for a virtual destructor between those of
// the two bases: owners delete through CommandDeleter.
class EventCommand {
 public:
  // Blocks for as long as the command takes. Outcomes are only logged. May throw
  // Platform::WindowsRuntimeError and std::exception.
  virtual void Execute() = 0;

 protected:
  ~EventCommand() = default;
};

// A command that may be run late, at service start, for a package that was uninstalled while the
// service was not running - if it says so.
class PackageEventCommand : public EventCommand {
 public:
  virtual bool RunIfUninstalledWhileNotRunning() { return false; }

 protected:
  ~PackageEventCommand() = default;
};

// Deletes a command as the class that it was made as.
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

// Starts a program with system rights in the console user's session, if it is trusted for that.
class LaunchCommand final : public PackageEventCommand {
 public:
  // Reads "path" (required), "arguments" (empty unless it is a string) and "delayDeliverySec" ("0"
  // when absent). Throws the JSON layer's Platform::WindowsRuntimeError.
  explicit LaunchCommand(const Json::JsonObject& parameters);

  // The file stays open against writing from before the trust check until the program is started.
  void Execute() override;
  bool RunIfUninstalledWhileNotRunning() override { return true; }

  std::wstring Path() const { return path; }
  std::wstring Arguments() const { return arguments; }
  std::wstring DelayDeliverySec() const { return delayDeliverySec; }

 private:
  std::wstring path;
  std::wstring arguments;
  std::wstring delayDeliverySec;
};

// Sends a JSON message to the app service of a packaged app; nobody hears whether it arrived.
class AppServiceNotificationCommand final : public EventCommand {
 public:
  // Reads "packageFamilyName", "appServiceName" and "payload" (required), "delayDeliverySec" ("0"
  // when absent) and, inside the payload, "customTriggerGUID" (empty unless it is a string). Throws
  // the JSON layer's Platform::WindowsRuntimeError.
  explicit AppServiceNotificationCommand(const Json::JsonObject& parameters);

  void Execute() override;

  std::wstring PackageFamilyName() const { return packageFamilyName; }
  std::wstring AppServiceName() const { return appServiceName; }
  Json::JsonObject Payload() const { return payload; }
  std::wstring DelayDeliverySec() const { return delayDeliverySec; }
  std::wstring CustomTriggerGUID() const { return customTriggerGuid; }

 private:
  std::wstring packageFamilyName;
  std::wstring appServiceName;
  Json::JsonObject payload;
  std::wstring delayDeliverySec;
  std::wstring customTriggerGuid;
};

// The command of an action, from its parameters. Throws Platform::WindowsRuntimeError:
// kUnknownAction, or the JSON layer's.
EventCommandPtr CreateEventCommand(EventAction action, const Json::JsonObject& parameters);

}  // namespace Vx::Tessel::Server::Services::Orvane
