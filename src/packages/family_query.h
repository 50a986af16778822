#pragma once

#include <string>

namespace Vx::Tessel::Server::Services::Orvane {

// Returns the first package of the family that the thread's user has, if any. Throws PackageError.
std::wstring FirstPackageOf(const std::wstring& familyName);

// Returns the family name in a full name ("Name_Version_Architecture_ResourceId_PublisherId").
// Throws std::invalid_argument for a text of another shape.
std::wstring FamilyOf(const std::wstring& fullName);

}  // namespace Vx::Tessel::Server::Services::Orvane
