#include "launch/registration_helper.h"

#include <exception>
#include <string>

#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kValueIs[] = L"value for %S is %S";
constexpr wchar_t kKeyMissing[] = L"%S key doesn't exist.";

constexpr char kRegistration[] = "registration_full_sent";
constexpr char kNotSet[] = "not_set";

std::string StoredState() {
  try {
    Storage::BsonElement stored;
    if (!Storage::CapDataStore().read(kRegistration, stored)) return kNotSet;
    return std::string(stored.AsText().value_or(kNotSet));
  } catch (const std::exception&) {
    return kNotSet;
  }
}

}  // namespace

RegistrationHelper::RegistrationHelper()
    : logger(Logging::LogManager::SetProvider(Logging::kComponentProvider)) {}

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

}  // namespace Vx::Tessel::Server::Services::Orvane
