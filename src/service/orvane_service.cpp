#include "service/orvane_service.h"

#include <cwchar>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "companion/qubo_facade.h"
#include "companion/registration.h"
#include "companion/text_files.h"
#include "companion/windows_mode.h"
#include "events/package_event_manager.h"
#include "events/subscription_delivery.h"
#include "events/subscription_forms.h"
#include "host/logging.h"
#include "platform/console_user.h"
#include "platform/files.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"
#include "service/boundary.h"
#include "service/command_handlers.h"
#include "service/dispatch.h"
#include "service/s_mode.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kStarted[] = L"%S: Started";
constexpr char kFulfillZephra[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::FulfillZephraManagementEventRequests";

constexpr char kListBroken[] = "the stored list is not a JSON array";
constexpr wchar_t kSubscriptionsDone[] = L"GetSubscriptions executed";
constexpr wchar_t kSleepStateDone[] = L"GetSleepState executed";

// The response to command 20 without its lists, and the longest response without requests.
constexpr std::wstring_view kListFrame = LR"({"result":{"power_events":,"zephra_events":}})";
constexpr std::wstring_view kPartFrame =
    LR"({"result":{"power_events":[],"zephra_events":[],"omitted":4294967295}})";

constexpr char kSleepState[] = "sleep_state";
constexpr char kPolicyChangedKey[] = "orvane_service_policy_changed_event";

constexpr wchar_t kPolicyRuntimeError[] =
    L"OrvaneService - OnPolicyChangedEvent failed: Message: %s, Code: %i";
constexpr wchar_t kPolicyFailed[] = L"OrvaneService - OnPolicyChangedEvent failed: %S";

constexpr wchar_t kPowerEventTrace[] = L"%S::PEVX::%S";
constexpr char kPowerEventTask[] =
    "Vx::Tessel::Server::Services::Orvane::OrvaneService::power_event_task";

constexpr wchar_t kSwitchCaller[] = L"Win10SSwitch";
constexpr wchar_t kSwitchArguments[] = L"C:\\Program Files\\Vx\\McAfeePre\\McAfeePar.txt";
constexpr wchar_t kSwitchProgram[] = L"C:\\Program Files\\Vx\\McAfeePre\\DADUpdater.exe";

constexpr unsigned kFreeMemory = 1;
constexpr std::pair<std::uint32_t, const char*> kResumes[] = {
    {kResumeSuspend, "PBT_APMRESUMESUSPEND"}, {kResumeAutomatic, "PBT_APMRESUMEAUTOMATIC"}};
constexpr std::uint32_t kSessionLogon = 5;   // WTS_SESSION_LOGON
constexpr std::uint32_t kSessionLogoff = 6;  // WTS_SESSION_LOGOFF

int Report(const Records::Outcome& done, Records::Outcome* outcome) {
  if (outcome != nullptr) *outcome = done;
  return 0;
}

void SignalIfMade(Platform::RawHandle event) {
  if (event != nullptr) Platform::CurrentMachine().kernelObjects->Signal(event);
}

void DoSModeSwitchWork(OrvaneService& service, const Logging::TraceLogger& logger) {
  RefreshRegistrationData(logger);
  const auto store = Storage::TryOpenStore();
  if (store == nullptr) return;
  const bool launched = service.Launch10SSwitchSoftwares();
  store->mergeMember(kServiceDocument, kExecutedStub, Storage::BsonElement::Boolean(launched));
}

// Notifies the host's app-service layer and replays the stored power subscriptions. When a machine
// that left S mode resumes, also refreshes the registration data and starts the switch software.
// Does not wait for the subscriptions' delays.
void HandlePowerEvent(OrvaneService& service, std::uint32_t eventType) {
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
  // Constructed first, so that an unreadable store is logged first.
  const Qubo::QuboFacade facade;
  logger.LogInfo(kPowerEventTrace, kPowerEventTask, "Enter");
  // Subscribers must receive the event even if the host's library fails.
  CatchAndLog("power_event_task",
              [] { Platform::CurrentMachine().appServices->Open({}, {})->SystemRestarted(); });
  service.FulfillPowerManagementEventRequests(eventType);

  for (const auto& [code, name] : kResumes) {
    if (code != eventType) continue;
    logger.LogInfo(kPowerEventTrace, kPowerEventTask, name);
    if (service.HasBeenInSMode()) DoSModeSwitchWork(service, logger);
  }
}

// Reads the stored requests under `key`. Like a replay, skips elements that are not objects.
Json::WideValue RequestsUnder(const char* key, Json::WidePool& pool) {
  Json::WideValue requests(rapidjson::kArrayType);
  const std::wstring text = RequestManager(kServiceDocument, key).RequireStoredList();
  if (text.empty()) return requests;
  Json::WideDocument stored(&pool);
  if (!Json::ParseJson(stored, text, Json::kMaxListNesting) || !stored.IsArray()) {
    throw std::runtime_error(kListBroken);
  }
  for (auto& request : stored.GetArray()) {
    if (request.IsObject()) requests.PushBack(request, pool);
  }
  return requests;
}

struct LengthStream {
  using Ch = wchar_t;
  std::size_t length = 0;
  void Put(wchar_t) { ++length; }
  void Flush() {}
};

// Returns the length of the value's JSON without building it, because lists may have 8 million
// characters.
std::size_t TextLength(const Json::WideValue& value) {
  LengthStream stream;
  Json::ScratchMemory scratch;
  rapidjson::Writer<LengthStream, Json::WideEncoding, Json::WideEncoding, Json::ScratchMemory>
      writer(stream, &scratch);
  value.Accept(writer);
  return stream.length;
}

// Removes each request from `list` that no longer fits into `room` characters, and deducts the
// others from `room`. Returns how many were removed.
unsigned LeaveOut(Json::WideValue& list, std::size_t& room, Json::WidePool& pool) {
  Json::WideValue listed(rapidjson::kArrayType);
  for (auto& request : list.GetArray()) {
    const std::size_t length = TextLength(request) + 1;  // with a comma
    if (length > room) continue;
    room -= length;
    listed.PushBack(request, pool);
  }
  list.Swap(listed);
  return listed.Size() - list.Size();
}

}  // namespace

OrvaneService* OrvaneService::Create() noexcept {
  try {
    return new OrvaneService();
  } catch (const std::exception&) {
    return nullptr;
  }
}

OrvaneService::OrvaneService() : state(std::make_shared<ServiceState>()) {}

OrvaneService::~OrvaneService() {
  SignalIfMade(state->stopEvent.get());
  SignalIfMade(state->sessionStopEvent.get());
  // Otherwise the watchers of this service's package subscriptions would keep the module loaded
  // forever.
  CatchAndLog("Destroy", [this] { PackageCatalogEventManager::clear_events(state.get()); });
}

void* OrvaneService::Destroy(unsigned flags) noexcept {
  void* self = this;
  this->~OrvaneService();
  if ((flags & kFreeMemory) != 0) ::operator delete(self);
  return self;
}

std::uint32_t OrvaneService::CreateClientContext(const wchar_t* clientId,
                                                 ClientContext** context) noexcept {
  if (context == nullptr) return kSuccess;
  *context = nullptr;
  const std::size_t length = ClientIdLength(clientId);
  std::unique_ptr<wchar_t[]> text(new (std::nothrow) wchar_t[length + 1]);
  std::unique_ptr<ClientContext> record(new (std::nothrow) ClientContext{});
  if (text == nullptr || record == nullptr) return kFailed;
  if (length != 0) std::wmemcpy(text.get(), clientId, length);
  text[length] = L'\0';
  record->clientId = text.release();
  *context = record.release();
  return kSuccess;
}

std::uint32_t OrvaneService::ReleaseClientContext(ClientContext** context) noexcept {
  if (context == nullptr || *context == nullptr) return kSuccess;
  delete[](*context)->clientId;
  delete *context;
  return kSuccess;
}

std::uint32_t OrvaneService::ExecuteCommand(ClientContext* context, std::uint32_t functionId,
                                            const wchar_t* request, wchar_t** response,
                                            CompletionCallback* callback) noexcept {
  Platform::ExpectOwnIdentity();
  return Dispatch(*this, context, functionId, request, response, callback);
}

void OrvaneService::Start() noexcept {
  Platform::ExpectOwnIdentity();
  CatchAndLog("Start",
              [this] { Platform::StartDetached([shared = state] { startup_task(shared); }); });
}

void OrvaneService::power_event_task(std::uint32_t eventType) noexcept {
  Platform::ExpectOwnIdentity();
  CatchAndLog("power_event_task", [&] { HandlePowerEvent(*this, eventType); });
}

bool OrvaneService::oobe_event_task() noexcept {
  Platform::ExpectOwnIdentity();
  return RunOobeEventTask(*state);
}

void OrvaneService::OnSessionChange(std::uint32_t code) noexcept {
  Platform::ExpectOwnIdentity();
  CatchAndLog("OnSessionChange", [this, code] {
    if (code == kSessionLogon) {
      RegisterExistingPackageCatalogManagerRequests(state.get(), state->stopEvent);
    }
    if (code == kSessionLogoff) PackageCatalogEventManager::clear_events(state.get());
  });
}

bool OrvaneService::RegisterAppPackageEvent(const wchar_t* request) {
  return Orvane::RegisterAppPackageEvent(request, state.get(), state->stopEvent);
}

int OrvaneService::RegisterPowerEvent(const wchar_t* request, const wchar_t* /*unused*/,
                                      Records::Outcome* outcome) {
  return Report(RegisterSubscription(kPowerEvents, request), outcome);
}

int OrvaneService::UnregisterPowerEvent(const wchar_t* request, const wchar_t* /*unused*/,
                                        Records::Outcome* outcome) {
  return Report(UnregisterSubscription(kPowerEvents, request), outcome);
}

void OrvaneService::FulfillPowerManagementEventRequests(std::uint32_t eventType) {
  FulfillSubscriptions(kPowerEvents, eventType, state->stopEvent);
}

int OrvaneService::RegisterZephraEvent(const wchar_t* request, const wchar_t* /*unused*/,
                                       Records::Outcome* outcome) {
  return Report(RegisterSubscription(kZephraEvents, request), outcome);
}

int OrvaneService::UnregisterZephraEvent(const wchar_t* request, const wchar_t* /*unused*/,
                                         Records::Outcome* outcome) {
  return Report(UnregisterSubscription(kZephraEvents, request), outcome);
}

void OrvaneService::FulfillZephraManagementEventRequests(std::uint32_t eventType) {
  FulfillZephraManagementEventRequests(*state, eventType);
}

void OrvaneService::FulfillZephraManagementEventRequests(const ServiceState& state,
                                                         std::uint32_t eventType) {
  state.logger->LogInfo(kStarted, kFulfillZephra);
  FulfillSubscriptions(kZephraEvents, eventType, state.stopEvent);
}

std::uint32_t OrvaneService::GetSubscriptions(const Call& call) {
  auto& pool = call.response.GetAllocator();
  Json::WideValue power = RequestsUnder(kPowerSubscriptions, pool);
  Json::WideValue zephra = RequestsUnder(kZephraSubscriptions, pool);
  unsigned omitted = 0;
  if (kListFrame.size() + TextLength(power) + TextLength(zephra) > kMaxResponseLength) {
    std::size_t room = kMaxResponseLength - kPartFrame.size();
    omitted = LeaveOut(power, room, pool);
    omitted += LeaveOut(zephra, room, pool);
  }
  Json::WideValue answer(rapidjson::kObjectType);
  AddMember(answer, L"power_events", std::move(power), pool);
  AddMember(answer, L"zephra_events", std::move(zephra), pool);
  if (omitted != 0) AddMember(answer, L"omitted", Json::WideValue(omitted), pool);
  AddResult(call.response, std::move(answer));
  Log(call.caller).LogInfo(kSubscriptionsDone);
  return kSuccess;
}

std::uint32_t OrvaneService::GetSleepState(const Call& call) {
  const std::int32_t stored = Storage::CapDataStore().requireInt32(kSleepState);
  AddAnswer(call, L"sleepState", stored);
  Log(call.caller).LogInfo(kSleepStateDone);
  return kSuccess;
}

bool OrvaneService::HasBeenInSMode() {
  return Qubo::WindowsModeCheckBehavior().HasBeenInSMode();
}

bool OrvaneService::Launch10SSwitchSoftwares() {
  const Platform::Files& files = *Platform::CurrentMachine().files;
  if (!files.ExistsByExactName(kSwitchArguments)) return false;
  if (!files.ExistsByExactName(kSwitchProgram)) return false;
  const auto arguments = ReadTextFile(kSwitchArguments, kSwitchCaller, *state->logger);
  return arguments && LaunchExeFor10SSwitch(kSwitchProgram, arguments->c_str());
}

int OrvaneService::OnPolicyChangedEvent(const wchar_t* /*unused*/, const wchar_t* /*unusedToo*/,
                                        Records::Outcome* outcome) {
  Records::Outcome done{Records::Decision::Failed, Records::Reason::Exception};
  try {
    Storage::CapDataStore store;
    const bool stored = store.persist(kPolicyChangedKey, "yes");
    FulfillZephraManagementEventRequests(static_cast<std::uint32_t>(ZephraEvent::PolicyChanged));
    done = {Records::Decision::Done,
            stored ? Records::Reason::None : Records::Reason::StoreRefused};
  } catch (const Platform::WindowsRuntimeError& error) {
    state->logger->LogWarning(kPolicyRuntimeError, error.message().c_str(), error.code());
  } catch (const std::exception& error) {
    state->logger->LogWarning(kPolicyFailed, error.what());
  }
  return Report(done, outcome);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
