#pragma once

#include <cstdint>
#include <memory>

#include "host/vx_service.h"
#include "service/service_state.h"

namespace Vx::Tessel::Server::Services::Orvane {

struct Call;

// The service object that the host drives. Each operation hands its work to the component that
// knows it; this class holds only what the tasks share.
//
// Any host thread may call any slot at any time after creation, also before Start. Nothing leaves a
// slot as an exception, since the host's compiler could not catch it: what cannot be answered with
// a result is logged.
class OrvaneService final : public VxService {
 public:
  // A new service, to be freed through Destroy(1); null when memory ran out.
  static OrvaneService* Create() noexcept;

  // Signals both stop events and lets go of what the tasks share; running tasks keep it until they
  // have noticed.
  void* Destroy(unsigned flags) noexcept override;
  std::uint32_t CreateClientContext(const wchar_t* clientId,
                                    ClientContext** context) noexcept override;
  std::uint32_t ReleaseClientContext(ClientContext** context) noexcept override;
  std::uint32_t ExecuteCommand(ClientContext* context, std::uint32_t functionId,
                               const wchar_t* request, wchar_t** response,
                               CompletionCallback* callback) noexcept override;

  // Starts the detached `startup_task` thread. A thread that cannot be made is logged; the service
  // stays usable for commands.
  void Start() noexcept override;
  void power_event_task(std::uint32_t eventType) noexcept override;
  bool oobe_event_task() noexcept override;
  void OnSessionChange(std::uint32_t code) noexcept override;

  // Change the stored lists of power and platform ("Zephra") subscriptions, and raise the platform
  // event of a changed policy. The second text is not used. Always 0.
  int RegisterPowerEvent(const wchar_t* request, const wchar_t* clientId);
  int UnregisterPowerEvent(const wchar_t* request, const wchar_t* clientId);
  int RegisterZephraEvent(const wchar_t* request, const wchar_t* clientId);
  int UnregisterZephraEvent(const wchar_t* request, const wchar_t* clientId);
  int OnPolicyChangedEvent(const wchar_t* request, const wchar_t* clientId);

  // Deliver an event to every stored subscription of its kind, as FulfillSubscriptions does.
  void FulfillPowerManagementEventRequests(std::uint32_t eventType);
  void FulfillZephraManagementEventRequests(std::uint32_t eventType);
  // The same for a background task, which may outlive the service object.
  static void FulfillZephraManagementEventRequests(const ServiceState& state,
                                                   std::uint32_t eventType);

  // Handlers of commands, see query_handlers.h for what they have in common.
  //
  // Id 20, "power_events" and "zephra_events": the stored requests as objects, in stored order.
  // Lists that would make the response longer than it may be are a failure.
  static std::uint32_t GetSubscriptions(const Call& call);

  // Id 21, "sleepState": what another service stored, 0 when it has not.
  static std::uint32_t GetSleepState(const Call& call);

  // Whether the machine was in S mode at its first start and is not now.
  bool HasBeenInSMode();

  // Starts the preloaded software that could not run in S mode, if it is there and trusted. Returns
  // whether it was started; does not wait for it.
  bool Launch10SSwitchSoftwares();

 private:
  OrvaneService();
  ~OrvaneService();

  std::shared_ptr<ServiceState> state;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
