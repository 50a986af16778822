#pragma once

#include <cstdint>
#include <memory>

#include "host/vx_service.h"
#include "records/record.h"
#include "service/startup.h"

namespace Vx::Tessel::Server::Services::Orvane {

struct Call;

// The service object that the host calls. Any host thread may call any slot at any time after
// creation, even before Start. No exception leaves a slot, because the host's compiler could not
// catch it. A slot without a result code logs its failures.
class OrvaneService final : public VxService {
 public:
  // Returns a new service, to be freed through Destroy(1), or null if out of memory.
  static OrvaneService* Create() noexcept;

  // Signals both stop events. A running task keeps the state alive until it stops.
  void* Destroy(unsigned flags) noexcept override;

  // Null means an empty identity. Ignores a null `context`. If out of memory, returns 0x20000002
  // and a null context. An identity that is too long terminates the process.
  std::uint32_t CreateClientContext(const wchar_t* clientId,
                                    ClientContext** context) noexcept override;

  // Also frees the identity. Accepts nulls. Returns 0.
  std::uint32_t ReleaseClientContext(ClientContext** context) noexcept override;

  std::uint32_t ExecuteCommand(ClientContext* context, std::uint32_t functionId,
                               const wchar_t* request, wchar_t** response,
                               CompletionCallback* callback) noexcept override;

  // If the `startup_task` thread cannot be created, logs that and remains usable for commands.
  void Start() noexcept override;
  void power_event_task(std::uint32_t eventType) noexcept override;
  bool oobe_event_task() noexcept override;
  void OnSessionChange(std::uint32_t code) noexcept override;

  // Stores a package subscription and makes it live for this service.
  bool RegisterAppPackageEvent(const wchar_t* request);

  // All return 0. Change the stored power and platform ("Zephra") subscriptions, or raise the
  // policy event. The second string is not used. `outcome`, if not null, receives what was done.
  int RegisterPowerEvent(const wchar_t* request, const wchar_t* unused,
                         Records::Outcome* outcome = nullptr);
  int UnregisterPowerEvent(const wchar_t* request, const wchar_t* unused,
                           Records::Outcome* outcome = nullptr);
  int RegisterZephraEvent(const wchar_t* request, const wchar_t* unused,
                          Records::Outcome* outcome = nullptr);
  int UnregisterZephraEvent(const wchar_t* request, const wchar_t* unused,
                            Records::Outcome* outcome = nullptr);
  int OnPolicyChangedEvent(const wchar_t* unused, const wchar_t* unusedToo,
                           Records::Outcome* outcome = nullptr);

  // Both deliver an event to every stored subscription of its kind (see FulfillSubscriptions).
  void FulfillPowerManagementEventRequests(std::uint32_t eventType);
  void FulfillZephraManagementEventRequests(std::uint32_t eventType);
  // For a background task, which may outlive the service object.
  static void FulfillZephraManagementEventRequests(const ServiceState& state,
                                                   std::uint32_t eventType);

  // Command handlers: see command_handlers.h.
  //
  // Id 20, "power_events" and "zephra_events": the stored requests as objects, in stored order.
  // "omitted" is the number that did not fit into the response. Fails if a list cannot be read.
  static std::uint32_t GetSubscriptions(const Call& call);

  // Id 21, "sleepState": the number that another service stored, or 0.
  static std::uint32_t GetSleepState(const Call& call);

  // Returns whether the machine was in S mode at its first start and no longer is.
  bool HasBeenInSMode();

  // Starts the preloaded software that could not run in S mode, if it is installed and trusted.
  // Does not wait for it. Returns whether it was started.
  bool Launch10SSwitchSoftwares();

 private:
  OrvaneService();
  ~OrvaneService();

  std::shared_ptr<ServiceState> state;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
