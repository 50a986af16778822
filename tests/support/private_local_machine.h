#pragma once

#include <string>
#include <vector>

#include <windows.h>

namespace Vx::Tests {

// HKEY_LOCAL_MACHINE as this process sees it, empty at first. The real one is not touched, and
// nothing is left behind. While it lives, data protection fails: under the emulator it looks its
// provider up there.
class PrivateLocalMachine {
 public:
  PrivateLocalMachine() : name(L"Software\\VxTest" + std::to_wstring(GetCurrentProcessId())) {
    RegCreateKeyExW(HKEY_CURRENT_USER, name.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                    KEY_ALL_ACCESS, nullptr, &root, nullptr);
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, root);
  }
  PrivateLocalMachine(const PrivateLocalMachine&) = delete;
  PrivateLocalMachine& operator=(const PrivateLocalMachine&) = delete;
  ~PrivateLocalMachine() {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegCloseKey(root);
    RegDeleteTreeW(HKEY_CURRENT_USER, name.c_str());
  }

  // Makes the key if need be, and stores just these bytes.
  void Set(const wchar_t* key, const wchar_t* value, DWORD type, const std::vector<BYTE>& data) {
    HKEY opened = nullptr;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                    nullptr, &opened, nullptr);
    // To a text the emulator adds the terminator that it finds behind it.
    std::vector<BYTE> bytes = data;
    bytes.insert(bytes.end(), {'#', '#'});
    RegSetValueExW(opened, value, 0, type, bytes.data(), static_cast<DWORD>(data.size()));
    RegCloseKey(opened);
  }

 private:
  std::wstring name;
  HKEY root = nullptr;
};

}  // namespace Vx::Tests
