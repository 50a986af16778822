#include "companion/qubo_behaviors.h"

#include <exception>

#include "companion/companion_apps.h"
#include "host/logging.h"
#include "json/utf8.h"
#include "launch/launcher.h"
#include "packages/uwp_package.h"
#include "storage/cap_data_store.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

namespace {

constexpr wchar_t kNotMarked[] = L"CapDataStore - a mark was not stored: %S";

constexpr std::size_t kLongestKey = 256;  // UTF-16 units

}  // namespace

constinit const wchar_t* const QuboUwpLaunchBehavior::package_family_name = kQubo.packageFamilyName;
constinit const wchar_t* const QuboUwpLaunchBehavior::alias = kQubo.alias;
constinit const wchar_t* const QuboUwpLaunchBehavior::package_family_name2 =
    kLumo.packageFamilyName;
constinit const wchar_t* const QuboUwpLaunchBehavior::alias2 = kLumo.alias;

QuboRegistrationCheckBehavior::QuboRegistrationCheckBehavior(
    std::unique_ptr<RegistrationHelper> helper)
    : registrationHelper(std::move(helper)) {}

RegistrationHelper::RegistrationState QuboRegistrationCheckBehavior::GetState() const {
  return registrationHelper->GetRegistrationState();
}

bool QuboUwpLaunchBehavior::Run(const std::wstring& parameter) const {
  const Launcher launcher;
  return launcher.Run(alias, package_family_name, parameter) ||
         launcher.Run(alias2, package_family_name2, parameter);
}

bool QuboUwpLaunchBehavior::Run() const {
  return Run({});
}

QuboLaunchCriteriaDataAccess::QuboLaunchCriteriaDataAccess(std::string storeKey)
    : key(std::move(storeKey)) {}

bool QuboLaunchCriteriaDataAccess::SaveSkipState(bool skip) const {
  // The client chooses the key. An empty key is not a criterion, and long ones would fill the
  // store.
  if (key.empty() || Json::ToWide(key).size() > kLongestKey) return false;
  try {
    // A document under the client's key belongs to another writer or to this service. Keep it.
    const auto store = Storage::TryOpenStore();  // logs a failure
    return store != nullptr && store->persistUnlessDocument(key, skip);
  } catch (const std::exception& error) {
    Logging::LogManager::SetProvider(Logging::kComponentProvider)
        ->LogWarning(kNotMarked, error.what());
    return false;
  }
}

bool QuboLaunchCriteriaDataAccess::ShouldBeSkipped() const {
  if (key.empty()) return false;
  try {
    return Storage::CapDataStore().readBool(key, false);
  } catch (const std::exception&) {
    return false;
  }
}

std::pair<std::int32_t, std::uint64_t> QuboBuildInfoDataAccess::GetOriginAndVersion() const {
  try {
    return UwpPackageDataAccess().GetOriginAndVersion(kLumo.packageFamilyName);
  } catch (const std::exception&) {
    return {0, 0};
  }
}

std::shared_ptr<Base::UwpBuildInfoDataAccess> QuboDataAccessFactory::CreateUwpBuildInfoDataAccess()
    const {
  return std::make_shared<QuboBuildInfoDataAccess>();
}

std::shared_ptr<Base::ApplicationLaunchCriteriaDataAccess>
QuboDataAccessFactory::CreateApplicationLaunchCriteriaDataAccess(const std::string& key) const {
  return std::make_shared<QuboLaunchCriteriaDataAccess>(key);
}

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
