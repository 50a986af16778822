#pragma once

#include <memory>
#include <vector>

#include "exemption/client_information.h"
#include "exemption/matching_descriptor.h"

namespace Vx::Tessel::Security {

// Decides whether a client may lack the maker's manifest.
class IClientWithNoVxManifestCheckCriteria {
 public:
  IClientWithNoVxManifestCheckCriteria() = default;
  IClientWithNoVxManifestCheckCriteria(const IClientWithNoVxManifestCheckCriteria&) = delete;
  IClientWithNoVxManifestCheckCriteria& operator=(const IClientWithNoVxManifestCheckCriteria&) =
      delete;
  virtual ~IClientWithNoVxManifestCheckCriteria() = default;

  virtual bool IsAnException() = 0;
};

// Exempts a packaged client if its family name is listed (case-sensitive) with a version no lower
// than the client's. Exempts no client if the list or the record is null.
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

// Does the same for a desktop client by its executable's name, ignoring case. Lowercases the name
// in the shared record. Use a record on one thread at a time.
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
