#include <cstddef>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <vector>

#include <windows.h>

#include "acceptance/kit.h"
#include "hosting/text.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Acceptance {

namespace {

constexpr wchar_t kWindowsKey[] = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)";
// The processor's own architecture, which a process that is emulated on ARM64 does not see.
constexpr wchar_t kEnvironmentKey[] =
    LR"(SYSTEM\CurrentControlSet\Control\Session Manager\Environment)";

std::wstring MachineText(const wchar_t* key, const wchar_t* value) {
  const auto found = Platform::CurrentMachine().registry->Read(key, value);
  return found ? Platform::TextOf(*found) : std::wstring();
}

}  // namespace

std::string CodeOf(const Platform::WindowsRuntimeError& error) {
  return Hosting::CodeText(static_cast<std::uint32_t>(error.code()));
}

std::string LineOf(const char* word, const char* name, const std::string& reason) {
  std::string line = Hosting::Cell(word, std::size(kNotTried) + 1) + name + ":";
  // The output of a program becomes one line.
  std::istringstream words(reason);
  for (std::string text; words >> text;) line += " " + text;
  return Hosting::Printable(line, Hosting::LineBreaks::Replace);
}

std::string Builds() {
  DWORD revision = 0;
  DWORD size = sizeof revision;
  RegGetValueW(HKEY_LOCAL_MACHINE, kWindowsKey, L"UBR", RRF_RT_REG_DWORD, nullptr, &revision,
               &size);
  // Omits ProductName, which is "Windows 10" even on Windows 11.
  std::string text = Hosting::Utf8(
      (IsWine() ? L"Wine, as Windows " : L"Windows ") +
      MachineText(kWindowsKey, L"DisplayVersion") + L" " + MachineText(kWindowsKey, L"EditionID") +
      L" " + MachineText(kEnvironmentKey, L"PROCESSOR_ARCHITECTURE") + L", build " +
      MachineText(kWindowsKey, L"CurrentBuild") + L"." + std::to_wstring(revision) + L"\n");
  for (const wchar_t* name : {L"OrvaneService.dll", L"OrvaneHost.exe", L"vxhost.exe"}) {
    const std::wstring path = KitFile(L"bin\\") + name;
    const auto digest = Platform::CurrentMachine().files->Sha256(path);
    text += Hosting::Utf8(name) + " " VX_VERSION " SHA-256 ";
    for (const std::byte byte : digest ? *digest : std::vector<std::byte>()) {
      char digits[3];
      static_cast<void>(
          std::snprintf(digits, sizeof digits, "%02x", std::to_integer<unsigned>(byte)));
      text += digits;
    }
    text += "\n";
  }
  return text;
}

}  // namespace Vx::Acceptance
