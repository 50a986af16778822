#include "platform/processes.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include <windows.h>

#include <psapi.h>
#include <shellapi.h>

#include "platform/windows/capabilities.h"
#include "platform/windows/deferred_library.h"
#include "platform/windows/file_handle.h"

namespace Vx::Platform {

namespace {

constexpr DWORD kCreationFlags =
    CREATE_NEW_CONSOLE | NORMAL_PRIORITY_CLASS | CREATE_UNICODE_ENVIRONMENT;
static_assert(kCreationFlags == 0x430);

// Including the terminator. Windows rejects a longer one. Wine truncates it silently, and a program
// must not run with half of its arguments.
constexpr std::size_t kLongestCommandLine = 32'767;

// The longest path that the kernel returns.
constexpr DWORD kLongestPath = 32'768;

constexpr std::wstring_view kEnvironmentEnd(L"\0\0", 2);

// Returns zero, or an error if `start` must not be passed to Windows.
ErrorCode Refusal(const ProcessStart& start) {
  if (!IsFullPath(start.application)) return ERROR_BAD_PATHNAME;
  if (start.commandLine.size() >= kLongestCommandLine) return ERROR_FILENAME_EXCED_RANGE;
  const std::wstring_view block(start.environment.data(), start.environment.size());
  if (!block.empty() && !block.ends_with(kEnvironmentEnd)) return ERROR_BAD_ENVIRONMENT;
  return 0;
}

class RealProcesses final : public Processes {
 public:
  Result<std::uint32_t> Start(RawHandle token, const ProcessStart& start) override {
    if (const ErrorCode error = Refusal(start); error != 0) return Failure(error);

    std::wstring commandLine = start.commandLine;  // the call may write to it
    std::vector<wchar_t> environment = start.environment;
    void* block = environment.empty() ? nullptr : environment.data();
    const wchar_t* folder =
        start.workingDirectory.empty() ? nullptr : start.workingDirectory.c_str();
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    std::wstring desktop = start.desktop;  // the call takes a non-const pointer
    if (!desktop.empty()) startup.lpDesktop = desktop.data();
    PROCESS_INFORMATION made{};
    const BOOL done =
        token == nullptr
            ? CreateProcessW(start.application.c_str(), commandLine.data(), nullptr, nullptr, FALSE,
                             kCreationFlags, block, folder, &startup, &made)
            : CreateProcessAsUserW(token, start.application.c_str(), commandLine.data(), nullptr,
                                   nullptr, FALSE, kCreationFlags, block, folder, &startup, &made);
    if (done == FALSE) return Failure(GetLastError());
    const UniqueHandle process(made.hProcess);
    const UniqueHandle thread(made.hThread);
    return static_cast<std::uint32_t>(made.dwProcessId);
  }

  std::vector<std::uint32_t> Ids(std::size_t limit) const override {
    constexpr std::size_t kMost = std::numeric_limits<DWORD>::max() / sizeof(DWORD);
    std::vector<DWORD> ids(std::min(limit, kMost));
    DWORD bytes = 0;
    if (EnumProcesses(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &bytes) ==
        FALSE) {
      return {};
    }
    ids.resize(std::min<std::size_t>(ids.size(), bytes / sizeof(DWORD)));
    return {ids.begin(), ids.end()};
  }

  std::optional<std::wstring> ImagePath(std::uint32_t id) const override {
    const UniqueHandle process(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id));
    if (process == nullptr) return std::nullopt;
    // Queries the kernel, because a process can change its name in its own list of modules.
    std::wstring path(kLongestPath, L'\0');
    DWORD length = kLongestPath;
    if (QueryFullProcessImageNameW(process.get(), 0, path.data(), &length) == FALSE) {
      return std::nullopt;
    }
    path.resize(std::min<std::size_t>(length, path.size()));
    return path;
  }

  std::optional<std::uint32_t> Session(std::uint32_t id) const override {
    DWORD session = 0;
    if (ProcessIdToSessionId(id, &session) == FALSE) return std::nullopt;
    return static_cast<std::uint32_t>(session);
  }

  Result<UniqueHandle> PrimaryToken(std::uint32_t id) const override {
    const UniqueHandle process(OpenProcess(MAXIMUM_ALLOWED, FALSE, id));
    if (process == nullptr) return Failure(GetLastError());
    HANDLE raw = nullptr;
    if (OpenProcessToken(process.get(), TOKEN_DUPLICATE, &raw) == FALSE) {
      return Failure(GetLastError());
    }
    const UniqueHandle token(raw);
    SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
    HANDLE copy = nullptr;
    if (DuplicateTokenEx(token.get(), MAXIMUM_ALLOWED, &attributes, SecurityIdentification,
                         TokenPrimary, &copy) == FALSE) {
      return Failure(GetLastError());
    }
    return UniqueHandle(copy);
  }
};

}  // namespace

Processes& WindowsProcesses() {
  static RealProcesses processes;
  return processes;
}

std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine) {
  static DeferredLibrary shell32(L"shell32.dll");
  auto* split = shell32.Find<decltype(CommandLineToArgvW)>("CommandLineToArgvW");
  if (split == nullptr) return {};
  int count = 0;
  const UniqueLocalMemory<wchar_t*> words(split(commandLine.c_str(), &count));
  if (!words || count < 0) return {};
  return {words.get(), words.get() + count};
}

}  // namespace Vx::Platform
