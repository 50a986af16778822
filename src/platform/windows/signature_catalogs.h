#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

#include "platform/result.h"

namespace Vx::Platform {

// Gives a catalog context back. It is null only in an empty owner.
struct CatalogAdminCloser {
  void operator()(void* admin) const noexcept;
};
using CatalogAdminHandle = std::unique_ptr<void, CatalogAdminCloser>;

// A context for the signed catalogs of Windows and of drivers, and the hash it searches them by.
struct CatalogAdmin {
  CatalogAdminHandle handle;
  bool sha256 = false;  // else the hash of the older calls, SHA-1
};

// Opens a context. The older call steps in where the newer one is not there (Wine has it and
// answers that it is not implemented). Errors are Windows' codes, here and below.
Result<CatalogAdmin> OpenCatalogs();

// The hash by which `admin` finds `file`, which is open for reading. Reads the whole file.
Result<std::vector<std::byte>> CatalogHashOf(const CatalogAdmin& admin, HANDLE file);

// The full path of the first catalog that has a member of this hash.
Result<std::wstring> CatalogOf(const CatalogAdmin& admin, std::vector<std::byte>& hash);

// The name of a catalog member: its hash in upper-case hexadecimal digits.
std::wstring MemberTag(const std::vector<std::byte>& hash);

}  // namespace Vx::Platform
