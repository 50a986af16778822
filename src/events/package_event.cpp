#include "events/package_event.h"

#include <utility>

#include "events/uninstall_watch.h"
#include "host/logging.h"
#include "platform/console_user.h"
#include "platform/machine.h"
#include "platform/sessions.h"
#include "platform/system_services.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNoSessionApi[] =
    L"Problem in PackageUninstallingPCEvent::PackageUninstallingPCEvent(): WTSQueryUserToken is "
    L"not available on this platform";
constexpr wchar_t kRevertFailed[] =
    L"Problem in PackageUninstallingPCEvent::PackageUninstallingPCEvent(): reverting the "
    L"impersonation failed";
constexpr wchar_t kNotInstalled[] = L"the package is not installed";
constexpr wchar_t kOwnAccountUnknown[] = L"the account of this process cannot be determined";
constexpr wchar_t kNoConsoleUser[] = L"nobody is signed in at the console";
constexpr wchar_t kCannotImpersonate[] = L"the console user cannot be impersonated";

const Logging::TraceLogger& Log() {
  return *Logging::LogManager::SetProvider(Logging::kComponentProvider);
}

void ReportRefusedStep(Platform::ActingStep step, Platform::ErrorCode) {
  if (step == Platform::ActingStep::Revert) {
    Log().LogWarning(kRevertFailed);
    return;
  }
  const bool acting = step == Platform::ActingStep::Impersonation;
  throw Platform::WindowsRuntimeError(kConsoleUserUnavailable,
                                      acting ? kCannotImpersonate : kNoConsoleUser);
}

}  // namespace

IPCEvent::IPCEvent(EventCommandPtr packageCommand)
    : command(std::move(packageCommand)), completion(std::make_shared<CompletionEvent>()) {}

IPCEvent::~IPCEvent() = default;

std::int64_t IPCEvent::EventComplete(CompletionHandler handler) {
  return completion->Add(std::move(handler));
}

std::mutex PackageUninstallingPCEvent::rLock;
std::mutex PackageUninstallingPCEvent::register_mux;
std::mutex PackageUninstallingPCEvent::uninstall_event_mux;
std::mutex PackageUninstallingPCEvent::commandTurn;

PackageUninstallingPCEvent::PackageUninstallingPCEvent(const std::wstring& packageFamilyName,
                                                       PackageCatalogEvent event,
                                                       EventCommandPtr packageCommand,
                                                       const std::shared_ptr<FiringMark>& mark,
                                                       const std::wstring& subscription)
    : IPCEvent(std::move(packageCommand)),
      watch(std::make_shared<UninstallWatch>(
          packageFamilyName, event, command, completion,
          mark == nullptr ? std::make_shared<FiringMark>() : mark, subscription)) {
  if (!Platform::CurrentMachine().apiSets->IsPresent(Platform::kSessionApiSet)) {
    Log().LogError(kNoSessionApi);
    return;
  }
  const std::lock_guard guard(rLock);
  if (Platform::CurrentMachine().packages->FindForAllUsers(packageFamilyName).empty()) {
    throw Platform::WindowsRuntimeError(kPackageNotInstalled, kNotInstalled);
  }
  catalog = OpenConsoleUserCatalog();
}

PackageUninstallingPCEvent::~PackageUninstallingPCEvent() {
  watch->Stop();
  for (auto& watcher : watchers) watcher.Join();
}

void PackageUninstallingPCEvent::Register() {
  const std::lock_guard guard(register_mux);
  if (!watchers.empty()) return;
  watchers.emplace_back(
      [shared = watch, opened = catalog] { UninstallWatch::Run(shared, opened); });
}

bool PackageUninstallingPCEvent::IsProcessRunningAsSystem() const {
  const auto answer = Platform::CurrentMachine().sessions->ProcessIsLocalSystem();
  // A wrong guess would permanently watch another user's packages.
  if (!answer) throw Platform::WindowsRuntimeError(kConsoleUserUnavailable, kOwnAccountUnknown);
  return *answer;
}

std::shared_ptr<Platform::PackageCatalog> PackageUninstallingPCEvent::OpenConsoleUserCatalog() {
  Platform::Packages& packages = *Platform::CurrentMachine().packages;
  if (!IsProcessRunningAsSystem()) return packages.OpenCatalogForCurrentUser();
  const Platform::UniqueHandle token = Platform::ConsoleUserToken(&ReportRefusedStep);
  auto sid = Platform::CurrentMachine().sessions->SidOf(token.get());
  user = sid ? std::optional(*std::move(sid)) : std::nullopt;
  return Platform::AsUser(token.get(), &ReportRefusedStep,
                          [&] { return packages.OpenCatalogForCurrentUser(); });
}

}  // namespace Vx::Tessel::Server::Services::Orvane
