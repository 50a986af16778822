#include "companion/registration.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>

#include "companion/text_files.h"
#include "launch/launcher.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/thread.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kValueIs[] = L"value for %S is %S";
constexpr wchar_t kKeyMissing[] = L"%S key doesn't exist.";
constexpr wchar_t kNoSessionApi[] =
    L"Problem in McAfeeHelper::expand_path_impersonated_as_loggedin_user(): WTSQueryUserToken is "
    L"not available on this platform";

constexpr char kRegistration[] = "registration_full_sent";
constexpr char kNotSet[] = "not_set";

constexpr wchar_t kMachineData[] = L"%programdata%\\Vx\\Registration\\registration_subset.xml";
constexpr wchar_t kUserData[] = L"%AppData%\\Vx\\Vx Setup\\REGDATA\\RegistrationSubset.xml";
constexpr wchar_t kResumeCaller[] = L"Win10SSwitch";

constexpr wchar_t kCopyFailed[] = L"CopyRegistration - failed: %S";
constexpr wchar_t kTookTooLong[] =
    L"CopyRegistration - cancelled, because another program holds up %s or %s";
constexpr wchar_t kStuck[] = L"CopyRegistration - not begun, because an earlier copy hangs";

constexpr std::chrono::seconds kLongestCopy{30};
constexpr std::chrono::milliseconds kPause{100};
constexpr int kCancels = 10;  // tries, each followed by a pause

std::string StoredState() {
  try {
    Storage::BsonElement stored;
    if (!Storage::CapDataStore().read(kRegistration, stored)) return kNotSet;
    return std::string(stored.View().AsText().value_or(kNotSet));
  } catch (const std::exception&) {
    return kNotSet;
  }
}

void ReportRefusedStep(Platform::ActingStep step, Platform::ErrorCode error) {
  if (step == Platform::ActingStep::SessionApi) {
    Logging::LogManager::SetProvider(Logging::kComponentProvider)->LogError(kNoSessionApi);
  } else {
    LogRefusedStep(step, error);
  }
}

// One copy operation. Owns all that its thread needs, because the thread may outlive the command.
struct Copy {
  Copy(const wchar_t* client, const Logging::TraceLogger& log) : caller(client), logger(log) {}

  const std::wstring caller;
  const Logging::TraceLogger& logger;  // lives as long as the process
  const std::uint64_t asked = Platform::CurrentMachine().clock->TickCount();
  std::wstring source;
  std::wstring destination;
  Platform::UniqueHandle token;
  bool copied = false;
  std::atomic<bool> ended = false;

  // The user controls the destination folder, which may contain a link, and the variables in both
  // paths. So the copy runs with exactly this user's rights.
  void Run() noexcept {
    try {
      copied = Platform::AsUser(token.get(), &ReportRefusedStep, [this] {
        return CopyFileContent(source, destination, caller.c_str(), logger);
      });
    } catch (const std::exception& error) {
      LogFailure(error);
    }
    ended = true;
  }

  bool LogFailure(const std::exception& error) const noexcept {
    logger.For(caller.c_str()).LogError(kCopyFailed, error.what());
    return false;
  }
};
using CopyPtr = std::shared_ptr<Copy>;

bool Expand(const wchar_t* path, std::wstring& expanded, Platform::OneLogon& user) {
  return McAfeeHelper().expand_path_impersonated_as_loggedin_user(path, expanded, &user);
}

// Obtains the console user's token, if the user is still `user`. Logs and returns false on failure.
bool TakeRights(Copy& copy, Platform::OneLogon& user) {
  copy.token =
      Platform::ConsoleUserToken(Platform::TokenType::Impersonation, &ReportRefusedStep, &user);
  return copy.token != nullptr;
}

// Copies on a separate thread, because the user can delay any access to their files indefinitely,
// for instance with an opportunistic lock. Cancels a copy that takes too long. While its thread
// still hangs, each later copy cancels it again and fails, so that one user cannot fill the process
// with threads. A copy also fails if it has to wait longer than kLongestCopy for its turn.
bool AwaitCopy(const CopyPtr& copy) noexcept try {
  static std::mutex turn;
  static CopyPtr hanging;
  static auto& worker = *new Platform::Thread();  // the thread of `hanging`; never destroyed
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  std::unique_lock guard(turn, std::defer_lock);
  while (std::chrono::milliseconds(clock.TickCount() - copy->asked) < kLongestCopy &&
         !guard.try_lock()) {
    clock.Sleep(kPause);
  }
  if (guard && hanging != nullptr && hanging->ended) {
    worker.Join();
    hanging = nullptr;
  }
  if (guard && hanging != nullptr) worker.CancelIo();
  if (!guard || hanging != nullptr) {
    copy->logger.For(copy->caller.c_str()).LogWarning(kStuck);
    return false;
  }
  worker = Platform::Thread([copy] { copy->Run(); });
  if (worker.JoinFor(kLongestCopy)) return copy->copied;
  // A copy that fails still removes its partial file, which can also be delayed.
  bool ended = false;
  for (int tries = 0; tries < kCancels && !ended; ++tries) {
    worker.CancelIo();
    ended = worker.JoinFor(kPause);
  }
  if (!ended) hanging = copy;
  copy->logger.For(copy->caller.c_str())
      .LogWarning(kTookTooLong, copy->source.c_str(), copy->destination.c_str());
  return false;
} catch (const std::exception& error) {  // out of memory, or no thread can be created
  return copy->LogFailure(error);
}

}  // namespace

RegistrationHelper::RegistrationState RegistrationHelper::GetRegistrationState() const {
  const std::string value = StoredState();
  logger->LogInfo(kValueIs, kRegistration, value.c_str());
  if (value == kNotSet) logger->LogWarning(kKeyMissing, kRegistration);
  return MapValueToState(value);
}

RegistrationHelper::RegistrationState RegistrationHelper::MapValueToState(std::string_view value) {
  static constexpr struct {
    std::string_view text;
    RegistrationState state;
  } kStates[] = {
      {"yes", RegistrationState::Yes},
      {"no", RegistrationState::No},
      {"skipped_uwp", RegistrationState::No},
      {"skipped_oobe", RegistrationState::SkippedOobe},
      {"pending_oobe", RegistrationState::Pending},
      {"pending_uwp", RegistrationState::Pending},
  };
  for (const auto& entry : kStates) {
    if (entry.text == value) return entry.state;
  }
  return RegistrationState::Unknown;
}

bool McAfeeHelper::expand_path_impersonated_as_loggedin_user(const std::wstring& path,
                                                             std::wstring& expanded,
                                                             Platform::OneLogon* same) const {
  logger->LogInfo(kActingAsUser);
  const auto token =
      Platform::ConsoleUserToken(Platform::TokenType::Impersonation, &ReportRefusedStep, same);
  auto answer = ExpandAsUser(token.get(), path);
  if (!answer) return false;
  expanded = *std::move(answer);
  return true;
}

bool CopyRegistrationData(const wchar_t* caller, const Logging::TraceLogger& logger) {
  const auto copy = std::make_shared<Copy>(caller, logger);
  Platform::OneLogon user;
  return Expand(kMachineData, copy->source, user) && Expand(kUserData, copy->destination, user) &&
         TakeRights(*copy, user) && AwaitCopy(copy);
}

void RefreshRegistrationData(const Logging::TraceLogger& logger) {
  const auto copy = std::make_shared<Copy>(kResumeCaller, logger);
  Platform::OneLogon user;
  if (!Expand(kUserData, copy->destination, user) || !Expand(kMachineData, copy->source, user) ||
      !TakeRights(*copy, user)) {
    return;
  }
  try {
    Platform::StartDetached([copy] { AwaitCopy(copy); });
  } catch (const std::system_error& error) {
    copy->LogFailure(error);
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
