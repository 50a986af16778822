#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "fuzz/wide_input.h"
#include "security/path_rules.h"
#include "security/pinned_key_text.h"

namespace {

using Vx::Fuzz::Check;
using namespace Vx::Tessel::Security;

void CheckKeyFile(std::string_view content) {
  const PinnedKeyFile file = ParsePinnedKeys(content);
  const auto lines = static_cast<std::size_t>(std::count(content.begin(), content.end(), '\n')) + 1;
  Check(!file.badLine || (*file.badLine >= 1 && *file.badLine <= lines), "the bad line is there");
  std::string again;
  for (const std::string& key : file.keys) {
    Check(IsPinnedKey(key), "only keys of the exact form are read");
    again += key + " # read\r\n";
  }
  const PinnedKeyFile second = ParsePinnedKeys(again);
  Check(!second.badLine && second.keys == file.keys, "keys that were read can be read again");
}

void CheckKeyForm(std::span<const std::byte> der) {
  const std::string text = FormatPublicKey(der);
  Check(text.size() == (der.empty() ? 0 : der.size() * 3 - 1), "three characters a byte");
  if (IsPinnedKey(text)) {
    Check(ParsePinnedKeys(text).keys.size() == 1, "what is formatted can be pinned");
  }
}

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
  CheckKeyFile({reinterpret_cast<const char*>(data), size});
  CheckKeyForm(std::as_bytes(std::span(data, size)));
  CheckPath(Vx::Fuzz::WideInput(data, size));
  return 0;
}
