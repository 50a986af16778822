#include <atomic>
#include <chrono>

#include <windows.h>

#include <winioctl.h>

#include "acceptance/kit.h"
#include "launch/launcher.h"
#include "platform/environment.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/thread.h"
#include "platform/unique_handle.h"

namespace Vx::Acceptance {

namespace {

using Platform::UniqueHandle;

// Every user of Windows 10 and 11 has this package.
constexpr wchar_t kShellFamily[] = L"Microsoft.Windows.ShellExperienceHost_cw5n1h2txyewy";
constexpr wchar_t kInstallerFamily[] = L"Microsoft.DesktopAppInstaller_8wekyb3d8bbwe";
constexpr wchar_t kInstallerAlias[] = L"winget.exe";
constexpr wchar_t kAliasFile[] = LR"(%LocalAppData%\Microsoft\WindowsApps\winget.exe)";

UniqueHandle Open(const std::wstring& path, DWORD access, DWORD disposition, DWORD flags) {
  return Platform::AdoptFile(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                         nullptr, disposition, flags, nullptr));
}

Platform::SharedHandle ConsoleUser() {
  auto user = Tessel::Server::Services::Orvane::Launcher().GetUserTokenForCurrentUser(
      Platform::TokenType::Impersonation);
  if (user == nullptr) throw NotTried("no user is signed in at the console");
  return user;
}

}  // namespace

std::string PackagesAreFound() {
  NeedsWindows("it has no packages");
  const Platform::SharedHandle user = ConsoleUser();  // whose packages count
  Require(!Platform::CurrentMachine().packages->FindForAllUsers(kShellFamily).empty(),
          "the Windows Runtime finds no package of the shell");
  return Expect(ToolWithStore(L"packages") + L"exec 6 \"{\\\"packageFamilyName\\\":\\\"" +
                    kShellFamily + L"\\\"}\"",
                "\"installed\":true");
}

std::string AliasStartsItsApp() {
  NeedsWindows("it has no packaged apps");
  const Tessel::Server::Services::Orvane::Launcher launcher;
  const Platform::SharedHandle user = ConsoleUser();
  const auto alias = Platform::CurrentMachine().environment->ExpandForUser(user.get(), kAliasFile,
                                                                           Platform::kShortPath);
  if (alias && !Exists(*alias)) {
    throw NotTried("the user at the console does not have the App Installer with its alias");
  }
  Require(!launcher.GetPackageFullNameByFamilyName(kInstallerFamily, user.get()).empty(),
          "the module does not find the App Installer of the user at the console");
  if (!launcher.Run(kInstallerAlias, kInstallerFamily, L"--version")) {
    NeedsOtherSessions();
    Require(false, "it is not started");
  }
  return "Windows created its process as the user at the console";
}

// Opening a file blocks until the owner of its oplock acknowledges the break:
// https://learn.microsoft.com/windows/win32/fileio/opportunistic-locks
std::string BlockedOpenIsCancelled() {
  NeedsWindows("it has no oplocks");
  const std::wstring path = KitFile(L"held.txt");
  OVERLAPPED request{};  // Windows writes to it until the file is closed
  const UniqueHandle held =
      Open(path, GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS, FILE_FLAG_OVERLAPPED);
  const UniqueHandle broken(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  request.hEvent = broken.get();
  DWORD size = 0;
  if (DeviceIoControl(held.get(), FSCTL_REQUEST_BATCH_OPLOCK, nullptr, 0, nullptr, 0, &size,
                      &request) != FALSE ||
      GetLastError() != ERROR_IO_PENDING) {
    throw NotTried("Windows grants no oplock");  // a virus scanner may have the file open
  }
  std::atomic<DWORD> error{ERROR_SUCCESS};
  Platform::Thread opener([&] {
    if (Open(path, GENERIC_READ, OPEN_EXISTING, 0) == nullptr) error = GetLastError();
  });
  const bool blocked = WaitForSingleObject(broken.get(), 10'000) == WAIT_OBJECT_0 &&
                       !opener.JoinFor(std::chrono::milliseconds(500));
  if (opener.Joinable()) {
    opener.CancelIo();
    if (!opener.JoinFor(std::chrono::seconds(10))) {
      opener.Detach();  // blocked until this process exits
      throw std::runtime_error("the open is not cancelled within 10 s");
    }
  }
  Require(blocked && error == ERROR_OPERATION_ABORTED,
          "the open fails with error " + std::to_string(error));
  return "ended with ERROR_OPERATION_ABORTED";
}

}  // namespace Vx::Acceptance
