#pragma once

#include <memory>
#include <vector>

#include "security/client_information.h"
#include "security/matching_descriptor.h"

namespace Vx::Tessel::Security {

// Decides whether one client may do without the maker's manifest.
class IClientWithNoVxManifestCheckCriteria {
 public:
  IClientWithNoVxManifestCheckCriteria() = default;
  IClientWithNoVxManifestCheckCriteria(const IClientWithNoVxManifestCheckCriteria&) = delete;
  IClientWithNoVxManifestCheckCriteria& operator=(const IClientWithNoVxManifestCheckCriteria&) =
      delete;
  virtual ~IClientWithNoVxManifestCheckCriteria() = default;

  virtual bool IsAnException() = 0;
};

// Exempt is a packaged client whose family name is listed, letter case included, with a version
// that is not below the client's. A missing list or record, or an empty list, exempts nobody.
class UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion final
    : public IClientWithNoVxManifestCheckCriteria {
 public:
  UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion(
      std::shared_ptr<std::vector<UwpMatchingDescriptor>> whiteList,
      std::shared_ptr<Server::Uwp::UwpInformation> client);

  bool IsAnException() override;

 private:
  std::shared_ptr<std::vector<UwpMatchingDescriptor>> list;
  std::shared_ptr<Server::Uwp::UwpInformation> caller;
};

// The same for a desktop client by its executable's name, in any letter case: asking turns the name
// in the shared record to lower case, and it stays so. One thread at a time per record.
class Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion final
    : public IClientWithNoVxManifestCheckCriteria {
 public:
  Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion(
      std::shared_ptr<std::vector<Win32MatchingDescriptor>> whiteList,
      std::shared_ptr<Server::Win32::Win32Information> client);

  bool IsAnException() override;

 private:
  std::shared_ptr<std::vector<Win32MatchingDescriptor>> list;
  std::shared_ptr<Server::Win32::Win32Information> caller;
};

}  // namespace Vx::Tessel::Security
