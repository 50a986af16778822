#pragma once

#include <string>

namespace Vx::Tessel::Server::Services::Orvane {

// Returns the full name of the first package of the family that the calling thread's user has, or
// an empty string if there is none. Throws PackageError.
std::wstring FirstPackageOf(const std::wstring& familyName);

// Returns the family name in a full name ("Name_Version_Architecture_ResourceId_PublisherId").
// Throws std::invalid_argument for any other format.
std::wstring FamilyOf(const std::wstring& fullName);

}  // namespace Vx::Tessel::Server::Services::Orvane
