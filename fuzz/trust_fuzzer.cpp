#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "fuzz/wide_input.h"
#include "security/path_rules.h"

namespace {

using Vx::Fuzz::Check;
using namespace Vx::Tessel::Security;

void CheckPath(std::wstring_view path) {
  Check(BeginsWith(path, path) && SameIgnoringCase(path, path), "a text begins with itself");
  if (IsPlainPath(path)) {
    Check(IsDrivePath(path), "a plain path starts at a drive");
    Check(std::count(path.begin(), path.end(), L':') == 1, "no stream in a plain path");
    const std::wstring closed = std::wstring(path) + L"\\";
    Check(closed.find(L"\\..\\") == std::wstring::npos, "no way up in a plain path");
    Check(closed.find(L".\\") == std::wstring::npos, "no name that Windows would shorten");
  }
  if (const auto folder = DriveWindowsAppsFolder(path)) {
    Check(path.starts_with(*folder) && path[folder->size()] == L'\\', "the folder holds the path");
    Check(folder->ends_with(L":\\WindowsApps"), "the folder is the one of a drive");
  }
  constexpr std::wstring_view kPrefix = L"C:\\Program Files\\";
  const auto below = WindowsAppsFolderBelow(kPrefix, path);
  Check(!below || (BeginsWith(path, kPrefix) && path.starts_with(*below)),
        "below means begins with");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CheckPath(Vx::Fuzz::WideInput(data, size));
  return 0;
}
