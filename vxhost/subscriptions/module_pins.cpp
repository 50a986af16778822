#include "vxhost/subscriptions/module_pins.h"

#include <algorithm>
#include <stdexcept>

#include <windows.h>

#include "hosting/loaded_module.h"
#include "hosting/text.h"
#include "security/authenticode_helper.h"

namespace Vx::Hosting::Tool {

using namespace Tessel::Security;

namespace {

constexpr char kPinned[] =
    " is signed with a pinned key, so a client could have the service start it as SYSTEM with any "
    "arguments; use a copy without a signature or sign it with a key that is not pinned";

std::string ResourceText(void* loaded, const wchar_t* name) {
  auto* const module = static_cast<HMODULE>(loaded);
  HRSRC const found = FindResourceW(module, name, RT_RCDATA);
  HGLOBAL const resource = found == nullptr ? nullptr : LoadResource(module, found);
  if (resource == nullptr) throw std::runtime_error("it has no list of pinned keys");
  return {static_cast<const char*>(LockResource(resource)), SizeofResource(module, found)};
}

// Returns whether `line` can be a key. The configure step checks the full form (cmake/pins.cmake).
bool IsKey(std::string_view line) {
  constexpr std::size_t kKeyLength = 809;
  return line.size() == kKeyLength &&
         line.find_first_not_of("0123456789abcdef ") == std::string_view::npos;
}

std::vector<std::string_view> KeysIn(std::string_view text) {
  std::vector<std::string_view> keys;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (line.empty() || line.front() == '#') continue;
    if (!IsKey(line)) throw std::runtime_error("its list of pinned keys is malformed");
    keys.push_back(line);
  }
  return keys;
}

}  // namespace

ModulePins::ModulePins(const std::wstring& module) {
  try {
    const UniqueLibrary loaded(
        LoadLibraryExW(module.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    if (loaded == nullptr) {
      throw std::runtime_error("it cannot be opened, error " + std::to_string(GetLastError()));
    }
    generalText = ResourceText(loaded.get(), L"PINNED_KEYS_GENERAL");
    restrictedText = ResourceText(loaded.get(), L"PINNED_KEYS_RESTRICTED");
    general = KeysIn(generalText);
    restricted = KeysIn(restrictedText);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("the pinned keys of " + Utf8(module) + " cannot be read: " +
                             error.what() + "; name another module with --dll");
  }
}

void RefusePinnedSignature(const std::wstring& program, KeySet general, KeySet restricted) {
  if (general.empty() && restricted.empty()) return;
  const VxAuthenticodeHelper helper;
  const auto lock = helper.AquireFileReadOnlyLock(program);
  if (lock == nullptr) {
    throw std::runtime_error("cannot read " + Utf8(program) + " to check its signature");
  }
  std::vector<SignatureRecord> records = helper.CollectSignatures(program, SignatureKind::Catalog);
  const auto embedded = helper.CollectSignatures(program, SignatureKind::Embedded);
  records.insert(records.end(), embedded.begin(), embedded.end());
  if (VxAuthenticodeHelper::IsTrustedByWindows(records) &&
      (VxAuthenticodeHelper::IsKeyPinned(records, general) ||
       VxAuthenticodeHelper::IsKeyPinned(records, restricted))) {
    throw std::runtime_error(Utf8(program) + kPinned);
  }
}

}  // namespace Vx::Hosting::Tool
