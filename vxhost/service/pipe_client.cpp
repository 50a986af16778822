#include "vxhost/service/pipe_client.h"

#include <limits>
#include <stdexcept>

#include <windows.h>

#include <aclapi.h>

#include "hosting/text.h"
#include "platform/windows/file_handle.h"
#include "servicehost/pipe_io.h"
#include "servicehost/pipe_server.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Hosting::Tool {

using namespace ServiceHost;

namespace {

// Not GENERIC_WRITE: it includes the right to create an instance, which only administrators have.
constexpr DWORD kAccess = FILE_GENERIC_READ | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES;

// A command may take minutes. The user can stop waiting by terminating the client.
constexpr std::chrono::milliseconds kNoLimit{std::numeric_limits<DWORD>::max()};

constexpr DWORD kPause = 20;  // milliseconds

// How long to wait for a free pipe instance.
constexpr std::chrono::seconds kPatience{10};

bool IsAccepted(const std::wstring& owner, PipeOwner accepted) {
  constexpr wchar_t kSystem[] = L"S-1-5-18";
  constexpr wchar_t kAdministrators[] = L"S-1-5-32-544";
  if (owner.empty()) return false;
  return owner == kSystem || owner == kAdministrators ||
         (accepted == PipeOwner::Account && owner == CallerOf(GetCurrentProcessId()).account);
}

// Returns the SID of the pipe's owner, or an empty string if unknown. Needs READ_CONTROL.
std::wstring OwnerOf(HANDLE pipe) {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (GetSecurityInfo(pipe, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                      nullptr, &raw) != ERROR_SUCCESS) {
    return {};
  }
  const Platform::UniqueLocalMemory<void> descriptor(raw);
  return Platform::SidText(owner);
}

}  // namespace

PipeClient::PipeClient(const std::wstring& path, std::uint32_t service,
                       std::chrono::milliseconds patience, PipeOwner accepted) {
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(patience.count());
  while (true) {
    // Identification level, so that an impostor server cannot impersonate this client.
    pipe = Platform::AdoptFile(CreateFileW(
        path.c_str(), kAccess, 0, nullptr, OPEN_EXISTING,
        FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (pipe != nullptr) break;
    const DWORD error = GetLastError();
    const ULONGLONG now = GetTickCount64();
    // A service that has just started may not have opened its pipe yet.
    const bool soon = error == ERROR_PIPE_BUSY || error == ERROR_FILE_NOT_FOUND;
    if (!soon || now >= end) {
      throw WindowsError("cannot open " + Utf8(path), error,
                         "; is the service running, and may this account use it?");
    }
    if (WaitNamedPipeW(path.c_str(), static_cast<DWORD>(end - now)) == FALSE) Sleep(kPause);
  }
  ULONG server = 0;
  if (GetNamedPipeServerProcessId(pipe.get(), &server) == FALSE || server != service) {
    throw std::runtime_error(Utf8(path) + " belongs to process " + std::to_string(server) +
                             " and not to the service, so nothing was sent");
  }
  const std::wstring owner = OwnerOf(pipe.get());
  if (!IsAccepted(owner, accepted)) {
    throw std::runtime_error(Utf8(path) + " belongs to account " +
                             (owner.empty() ? "(unknown)" : Utf8(owner)) +
                             " and not to the service's, so nothing was sent");
  }
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr) == FALSE) {
    throw std::runtime_error("the pipe is not in message mode");
  }
}

CommandResult PipeClient::Execute(const CommandEnvelope& command) {
  PipeMessages messages(pipe.get(), nullptr);
  std::string message = WriteCommand(command);
  if (message.size() > kLongestCommand) throw std::runtime_error("the request is too long");
  if (messages.Write(message, kNoLimit) != PipeOutcome::Done ||
      messages.Read(message, kLongestResult, kNoLimit) != PipeOutcome::Done) {
    throw std::runtime_error("the service closed the connection");
  }
  auto result = ParseResult(message);
  if (!result) throw std::runtime_error("the service sent no result");
  return std::move(*result);
}

PipeClient ConnectToService(const std::wstring& name, std::uint32_t process) {
  if (process == 0) return {PipePath(name), ProcessOfService(name), kPatience};
  return {PipePath(name), process, kPatience, PipeOwner::Account};
}

}  // namespace Vx::Hosting::Tool
