#include <array>
#include <chrono>
#include <string>
#include <vector>

#include <windows.h>

#include <msi.h>

#include "acceptance/kit.h"
#include "hosting/text.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Acceptance {

namespace {

constexpr wchar_t kMsi[] = L"msi\\OrvaneService.msi";
constexpr wchar_t kPrevious[] = L"msi\\previous.msi";
constexpr wchar_t kMsiNote[] = L"msi.note";  // a file, once a row has begun to install
constexpr wchar_t kWithService[] = L" ADDLOCAL=ALL";
// All versions of the product share it, as packaging/make_msi.sh says.
constexpr wchar_t kUpgradeCode[] = L"{8D2B6A51-5C0E-4F0B-9A3C-6F6E1B1F9C27}";

std::wstring Installed(const wchar_t* file) {
  return ProgramFiles(L"Vx\\OrvaneService\\") + file;
}

bool ServiceIsInstalled() {
  return Hosting::Tool::ServiceManager().Query(L"OrvaneService").has_value();
}

// Returns the product codes of all versions of the product on this PC, in any folder.
std::vector<std::wstring> InstalledProducts() {
  std::vector<std::wstring> products;
  std::array<wchar_t, 39> code{};
  const auto next = [&] { return static_cast<DWORD>(products.size()); };
  while (MsiEnumRelatedProductsW(kUpgradeCode, 0, next(), code.data()) == ERROR_SUCCESS) {
    products.emplace_back(code.data());
  }
  return products;
}

// Returns whether the kit's own MSI installed it, because the tester may have installed the product
// since the kit was interrupted. Windows keeps the folder of the MSI:
// https://learn.microsoft.com/windows/win32/api/msi/nf-msi-msigetproductinfow
bool IsFromKit(const std::wstring& product) {
  std::array<wchar_t, 1024> source{};
  auto length = static_cast<DWORD>(source.size());
  const UINT error =
      MsiGetProductInfoW(product.c_str(), INSTALLPROPERTY_INSTALLSOURCE, source.data(), &length);
  if (error != ERROR_SUCCESS) {
    throw Hosting::WindowsError("cannot find out who installed " + Hosting::Utf8(product), error);
  }
  return _wcsicmp(source.data(), KitFile(L"msi\\").c_str()) == 0;
}

// Throws NotTried unless the kit has the MSI and no version of the product is installed on this PC,
// in any folder.
void Needs(const wchar_t* msi) {
  if (!Exists(KitFile(msi))) throw NotTried("the kit has no " + Hosting::Utf8(msi));
  if (Exists(Installed(L"")) || ServiceIsInstalled() || !InstalledProducts().empty()) {
    throw NotTried("the product or its service is installed on this PC");
  }
}

// Runs Windows Installer without its user interface and without a restore point. Returns its exit
// code, or 0 if Windows only needs a restart.
unsigned RunMsi(const std::wstring& arguments) {
  unsigned code = 0;
  // Windows may be busy with an update, or with a row that was ended.
  Eventually(std::chrono::minutes(1), [&] {
    code =
        Run(SystemProgram(L"msiexec.exe") + L" " + arguments + L" MSIFASTINSTALL=1 /qn /norestart")
            .code;
    return code != ERROR_INSTALL_ALREADY_RUNNING;
  });
  switch (code) {
    case ERROR_SUCCESS_REBOOT_REQUIRED:
    case ERROR_SUCCESS_REBOOT_INITIATED:
      return 0;
    case ERROR_INSTALL_ALREADY_RUNNING:
      throw NotTried("another installation is running");
    default:
      return code;
  }
}

// Windows Installer goes on without the program that began, and lists the product only at the end:
// https://learn.microsoft.com/windows/win32/msi/-msiexecute-mutex
bool InstallerIsIdle() {
  const Platform::UniqueHandle busy(
      OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, L"Global\\_MSIExecute"));
  if (busy == nullptr) return GetLastError() == ERROR_FILE_NOT_FOUND;
  if (WaitForSingleObject(busy.get(), 0) == WAIT_TIMEOUT) return false;
  ReleaseMutex(busy.get());
  return true;
}

void Install(const wchar_t* msi, const std::wstring& properties = {}) {
  Hosting::WriteTextFile(KitFile(kMsiNote), "");
  // Under Wine, no folder belongs to the administrators, as it must outside development.
  const unsigned code = RunMsi(L"/i " + InQuotes(KitFile(msi)) + properties +
                               (IsWine() ? L" SERVICEOPTIONS=--development" : L""));
  if (code == ERROR_INSTALL_PACKAGE_REJECTED) {
    throw NotTried("a policy of this PC forbids the installation");
  }
  Require(code == 0, "msiexec exits with " + std::to_string(code));
  Require(Exists(Installed(L"OrvaneService.dll")), "it installs no module");
}

std::string Exec(const wchar_t* command, const char* text) {
  return Expect(InQuotes(Installed(L"vxhost.exe")) + L" exec --service " + command, text);
}

// Removes the MSI, with which `folder` and the service must go.
void ExpectRemoval(const std::wstring& folder) {
  RemoveMsi();
  Require(Eventually(std::chrono::seconds(20),
                     [&] { return !Exists(folder) && !ServiceIsInstalled(); }),
          "its removal leaves a folder or the service");
}

}  // namespace

std::string MsiInstalls() {
  Needs(kMsi);
  // The maker's other products share the outer folder.
  const std::wstring folder = Exists(ProgramFiles(L"Vx")) ? Installed(L"") : ProgramFiles(L"Vx");
  Install(kMsi);
  Require(!ServiceIsInstalled(), "it installs a service that was not asked for");
  Require(Exists(Installed(L"docs\\operations.md")), "it installs no manual");
  ExpectRemoval(folder);
  return "installed and removed";
}

std::string MsiInstallsService() {
  Needs(kMsi);
  ClaimFreePc();
  Install(kMsi, kWithService);
  std::string version = Exec(L"22", "getVersion");
  ExpectRemoval(ProgramFiles(L"Vx"));
  return version;
}

std::string MsiUpgrades() {
  Needs(kMsi);
  Needs(kPrevious);
  ClaimFreePc();
  Install(kPrevious, kWithService);
  const std::string older = Exec(L"22", "getVersion");
  Exec(
      LR"(9 "{\"powerEventType\":7,\"eventAction\":1,\"commandParams\":{\"path\":\"C:\\kept.exe\"}}")",
      "(stored)");
  Install(kMsi, kWithService);
  std::string newer = Exec(L"22", "getVersion");
  Require(newer != older, "after the upgrade the service still answers " + older);
  Exec(L"20", "kept.exe");
  ExpectRemoval(ProgramFiles(L"Vx"));
  return newer;
}

void RemoveMsi() {
  if (!Exists(KitFile(kMsiNote))) return;
  if (!Eventually(std::chrono::minutes(3), InstallerIsIdle)) {
    throw NotTried("another installation is running");
  }
  for (const std::wstring& product : InstalledProducts()) {
    if (!IsFromKit(product)) continue;
    const unsigned code = RunMsi(L"/x " + product);
    // Windows Installer may have completed a removal that a row had begun.
    Require(code == 0 || code == ERROR_UNKNOWN_PRODUCT,
            "the MSI cannot be removed: msiexec exits with " + std::to_string(code));
  }
  // Wine does not delete the folder. A folder that is not empty is kept.
  if (IsWine()) RemoveDirectoryW(ProgramFiles(L"Vx").c_str());
  DeleteFileW(KitFile(kMsiNote).c_str());
}

}  // namespace Vx::Acceptance
