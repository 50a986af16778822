#include "launch/registration_data.h"

#include <string>

#include "launch/mcafee_helper.h"
#include "launch/text_files.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kMachineData[] = L"%programdata%\\Vx\\Registration\\registration_subset.xml";
constexpr wchar_t kUserData[] = L"%AppData%\\Vx\\Vx Setup\\REGDATA\\RegistrationSubset.xml";
constexpr wchar_t kResumeCaller[] = L"Win10SSwitch";

bool Expand(const wchar_t* path, std::wstring& expanded) {
  return McAfeeHelper().expand_path_impersonated_as_loggedin_user(path, expanded);
}

// The destination is the user's own folder, where a link may wait, and the variables in both paths
// are the user's too. So neither side is touched with more rights than the user has.
bool CopyAsUser(const std::wstring& source, const std::wstring& destination, const wchar_t* caller,
                const Logging::TraceLogger& logger) {
  return McAfeeHelper().RunAsLoggedInUser(
      [&] { return CopyFileContent(source, destination, caller, logger); });
}

}  // namespace

bool CopyRegistrationData(const wchar_t* caller, const Logging::TraceLogger& logger) {
  std::wstring source;
  std::wstring destination;
  return Expand(kMachineData, source) && Expand(kUserData, destination) &&
         CopyAsUser(source, destination, caller, logger);
}

bool RefreshRegistrationData(const Logging::TraceLogger& logger) {
  std::wstring source;
  std::wstring destination;
  return Expand(kUserData, destination) && Expand(kMachineData, source) &&
         CopyAsUser(source, destination, kResumeCaller, logger);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
