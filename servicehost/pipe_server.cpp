#include "servicehost/pipe_server.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include <windows.h>

#include <sddl.h>

#include "servicehost/pipe_io.h"

namespace Vx::Host {

namespace {

using Platform::UniqueHandle;

constexpr wchar_t kNameTaken[] =
    L"the pipe's name is in use by another process, no commands until it is free: ";
constexpr wchar_t kNameFree[] = L"the pipe is open: ";
constexpr wchar_t kNoThread[] = L"a client was turned away for want of a thread";
constexpr wchar_t kRubbish[] = L"a client was disconnected, its message is not a command: ";
constexpr wchar_t kTooSlow[] = L"a client was disconnected, it did not read its result: ";
constexpr wchar_t kTooLong[] = L"a client was disconnected, its result is too long: ";

constexpr DWORD kPipeBuffer = 65536;
constexpr std::size_t kLongestName = 64;

[[noreturn]] void ThrowLastError(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

UniqueHandle NewEvent(BOOL manual) {
  UniqueHandle event(CreateEventW(nullptr, manual, FALSE, nullptr));
  if (event == nullptr) ThrowLastError("event");
  return event;
}

std::wstring UserOf(HANDLE process) {
  HANDLE raw = nullptr;
  if (OpenProcessToken(process, TOKEN_QUERY, &raw) == FALSE) return {};
  const UniqueHandle token(raw);
  alignas(TOKEN_USER) std::byte buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof buffer;
  if (GetTokenInformation(token.get(), TokenUser, buffer, size, &size) == FALSE) return {};
  wchar_t name[256];
  wchar_t domain[256];
  DWORD nameSize = static_cast<DWORD>(std::size(name));
  DWORD domainSize = static_cast<DWORD>(std::size(domain));
  SID_NAME_USE use{};
  const PSID sid = reinterpret_cast<const TOKEN_USER*>(buffer)->User.Sid;
  if (LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use) == FALSE) {
    return {};
  }
  return name;
}

}  // namespace

std::wstring PipePath(const std::wstring& serviceName) {
  return L"\\\\.\\pipe\\VxHost-" + serviceName;
}

void CheckSids(const std::vector<std::wstring>& texts) {
  for (const std::wstring& sid : texts) {
    PSID parsed = nullptr;
    if (ConvertStringSidToSidW(sid.c_str(), &parsed) == FALSE) ThrowLastError("--allow");
    const Platform::UniqueLocalMemory<void> owner(parsed);
  }
}

std::wstring PipeAccess(const std::vector<std::wstring>& allowed) {
  std::wstring access = L"D:P(D;;GA;;;NU)(A;;GA;;;SY)(A;;GA;;;BA)";
  // FILE_GENERIC_READ, FILE_WRITE_DATA and FILE_WRITE_ATTRIBUTES. GENERIC_WRITE would include the
  // right to create an instance, and with it to serve other clients.
  for (const std::wstring& sid : allowed) access += L"(A;;0x12018b;;;" + sid + L")";
  return access;
}

std::wstring ClientName(std::uint32_t processId) {
  const UniqueHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  std::wstring path(32768, L'\0');
  DWORD length = static_cast<DWORD>(path.size());
  if (process == nullptr ||
      QueryFullProcessImageNameW(process.get(), 0, path.data(), &length) == FALSE) {
    return L"process " + std::to_wstring(processId);
  }
  path.resize(length);
  std::wstring name = path.substr(path.find_last_of(L'\\') + 1);
  if (const std::wstring user = UserOf(process.get()); !user.empty()) name += L" " + user;
  name.resize(std::min(name.size(), kLongestName));
  return name;
}

PipeServer::PipeServer(PipeOptions settings, Handler run, Report tell)
    : options(std::move(settings)),
      handler(std::move(run)),
      report(std::move(tell)),
      stop(NewEvent(TRUE)),
      left(NewEvent(FALSE)) {
  CheckSids(options.allowed);
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(
          PipeAccess(options.allowed).c_str(), SDDL_REVISION_1, &raw, nullptr) == FALSE) {
    ThrowLastError("access list");
  }
  security.reset(raw);
  listener = Platform::Thread([this] { Listen(); });
}

PipeServer::~PipeServer() {
  SetEvent(stop.get());
  listener.Join();
  for (Connection& connection : connections) connection.thread.Join();
}

UniqueHandle PipeServer::NewInstance(bool first) const {
  SECURITY_ATTRIBUTES attributes{sizeof attributes, security.get(), FALSE};
  const DWORD mode =
      PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0U);
  return Platform::AdoptFile(CreateNamedPipeW(
      options.path.c_str(), mode,
      PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
      PIPE_UNLIMITED_INSTANCES, kPipeBuffer, kPipeBuffer, 0, &attributes));
}

// Null when the server stops first.
UniqueHandle PipeServer::FirstInstance() {
  bool reported = false;
  while (true) {
    UniqueHandle pipe = NewInstance(true);
    if (pipe != nullptr) {
      report(L"INFO", kNameFree + options.path);
      return pipe;
    }
    const DWORD error = GetLastError();
    if (!std::exchange(reported, true)) {
      report(L"ERROR", kNameTaken + options.path + L" (error " + std::to_wstring(error) + L")");
    }
    const auto patience = static_cast<DWORD>(options.retry.count());
    if (WaitForSingleObject(stop.get(), patience) != WAIT_TIMEOUT) return nullptr;
  }
}

// An instance exists at any time, so that the name is never free for another process.
void PipeServer::Listen() noexcept {
  try {
    UniqueHandle pipe = FirstInstance();
    while (pipe != nullptr && WaitForRoom()) {
      const PipeOutcome outcome = PipeMessages(pipe.get(), stop.get()).Connect();
      if (outcome == PipeOutcome::Stopped) return;
      UniqueHandle next = NewInstance(false);
      if (outcome == PipeOutcome::Done) Admit(std::move(pipe));
      pipe = next != nullptr ? std::move(next) : FirstInstance();
    }
  } catch (const std::exception&) {
    report(L"ERROR", L"the pipe serves no further clients");
  }
}

// False when the server stops first.
bool PipeServer::WaitForRoom() {
  JoinThoseThatAreOver();
  while (connections.size() >= options.clients) {
    const HANDLE handles[] = {stop.get(), left.get()};
    if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) return false;
    JoinThoseThatAreOver();
  }
  return true;
}

void PipeServer::JoinThoseThatAreOver() {
  for (auto it = connections.begin(); it != connections.end();) {
    const bool over = [&] {
      const std::lock_guard guard(lock);
      return it->over;
    }();
    if (over) it->thread.Join();
    it = over ? connections.erase(it) : std::next(it);
  }
}

void PipeServer::Admit(UniqueHandle pipe) {
  Connection& connection = connections.emplace_back();
  connection.pipe = std::move(pipe);
  try {
    connection.thread = Platform::Thread([this, &connection] { Serve(connection); });
  } catch (const std::exception&) {  // no thread, or no memory for what it takes over
    connections.pop_back();
    report(L"WARNING", kNoThread);
  }
}

void PipeServer::Serve(Connection& connection) noexcept {
  try {
    PipeMessages messages(connection.pipe.get(), stop.get());
    std::wstring client;
    std::string message;
    while (messages.Read(message, kLongestCommand, options.idle) == PipeOutcome::Done) {
      if (client.empty()) {
        ULONG processId = 0;
        GetNamedPipeClientProcessId(connection.pipe.get(), &processId);
        client = ClientName(processId);
      }
      const auto command = ParseCommand(message);
      if (!command) {
        report(L"WARNING", kRubbish + client);
        break;
      }
      const std::string result = WriteResult(handler(*command, client));
      if (result.size() > kLongestResult) {
        report(L"WARNING", kTooLong + client);
        break;
      }
      const PipeOutcome outcome = messages.Write(result, options.stuck);
      if (outcome == PipeOutcome::TimedOut) report(L"WARNING", kTooSlow + client);
      if (outcome != PipeOutcome::Done) break;
    }
  } catch (const std::exception&) {
    report(L"ERROR", L"a connection ended without memory");
  }
  // Closing does not discard a result that the client has yet to read, as disconnecting would.
  connection.pipe.reset();
  {
    const std::lock_guard guard(lock);
    connection.over = true;
  }
  SetEvent(left.get());
}

}  // namespace Vx::Host
