#include "service/power_event.h"

#include "companion/qubo_facade.h"
#include "companion/registration.h"
#include "events/subscription_forms.h"
#include "host/logging.h"
#include "platform/app_services.h"
#include "platform/machine.h"
#include "service/boundary.h"
#include "service/orvane_service.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kPowerEventTrace[] = L"%S::PEVX::%S";
constexpr char kPowerEventTask[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::power_event_task";

struct Resume {
  std::uint32_t code;
  const char* name;
};
constexpr Resume kResumes[] = {{kResumeSuspend, "PBT_APMRESUMESUSPEND"},
                               {kResumeAutomatic, "PBT_APMRESUMEAUTOMATIC"}};

const Resume* ResumeOf(std::uint32_t eventType) {
  for (const Resume& resume : kResumes) {
    if (resume.code == eventType) return &resume;
  }
  return nullptr;
}

void DoSModeSwitchWork(OrvaneService& service, const Logging::TraceLogger& logger) {
  RefreshRegistrationData(logger);
  const auto store = Storage::TryOpenStore();
  if (store == nullptr) return;
  const bool launched = service.Launch10SSwitchSoftwares();
  store->mergeMember(kServiceDocument, kExecutedStub, Storage::BsonElement::Boolean(launched));
}

}  // namespace

void HandlePowerEvent(OrvaneService& service, std::uint32_t eventType) {
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
  // Constructed first, so that an unreadable store is logged first.
  const Qubo::QuboFacade facade;
  logger.LogInfo(kPowerEventTrace, kPowerEventTask, "Enter");
  // Subscribers must receive the event even if the host's library fails.
  CatchAndLog("power_event_task",
              [] { Platform::CurrentMachine().appServices->Open({}, {})->SystemRestarted(); });
  service.FulfillPowerManagementEventRequests(eventType);

  const Resume* resume = ResumeOf(eventType);
  if (resume == nullptr) return;
  logger.LogInfo(kPowerEventTrace, kPowerEventTask, resume->name);
  if (service.HasBeenInSMode()) DoSModeSwitchWork(service, logger);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
