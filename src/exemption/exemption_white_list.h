#pragma once

#include <memory>
#include <vector>

#include "exemption/matching_descriptor.h"

namespace Vx::Tessel::Security {

// Clients that are tolerated without the maker's manifest, up to a given version. GetExemption
// returns a new list.

class UwpWithNoVxManifestExemptionWhiteList {
 public:
  static std::shared_ptr<std::vector<UwpMatchingDescriptor>> GetExemption();
};

// Names are in lower case, because the checker lowercases the client's.
class Win32WithNoVxManifestExemptionWhiteList {
 public:
  static std::shared_ptr<std::vector<Win32MatchingDescriptor>> GetExemption();
};

}  // namespace Vx::Tessel::Security
