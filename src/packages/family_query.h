#pragma once

#include <string>

namespace Vx::Tessel::Server::Services::Orvane {

// The full name of the first package of the family that the calling thread's user has; empty when
// there is none. Throws PackageError.
std::wstring FirstPackageOf(const std::wstring& familyName);

// The family name in a full name ("Name_Version_Architecture_ResourceId_PublisherId"). Throws
// std::invalid_argument for a text of another shape.
std::wstring FamilyOf(const std::wstring& fullName);

}  // namespace Vx::Tessel::Server::Services::Orvane
