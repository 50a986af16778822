#include "servicehost/pipe_server.h"

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

#include <windows.h>

#include <sddl.h>

#include "platform/clock.h"
#include "platform/machine.h"
#include "servicehost/pipe_io.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Platform::UniqueHandle;

constexpr wchar_t kNameTaken[] =
    L"the pipe's name is in use by another process, no commands until it is free: ";
constexpr wchar_t kNameFree[] = L"the pipe is open: ";
constexpr wchar_t kNotOpened[] = L"the pipe cannot be opened for a further client: ";
constexpr wchar_t kAccountIsFull[] =
    L"a client was turned away, because its account holds too many places: ";
constexpr wchar_t kReserved[] =
    L"a client was turned away, because the places left are for administrators: ";
constexpr wchar_t kUnknown[] =
    L"a client was turned away, because Windows does not report its account: ";
constexpr wchar_t kMore[] = L" (and ";  // followed by the count
constexpr wchar_t kSinceLast[] = L" more since the last such line)";
constexpr wchar_t kNoMemory[] = L"a client was turned away, because memory ran out";
constexpr wchar_t kNoThread[] = L"a client was turned away, because no thread could be started";
constexpr wchar_t kRubbish[] = L"a client was disconnected, because its message is not a command: ";
constexpr wchar_t kTooSlow[] = L"a client was disconnected, because it did not read its result: ";
constexpr wchar_t kTooLong[] = L"a client was disconnected, because its result is too long: ";

constexpr wchar_t kSystem[] = L"S-1-5-18";

constexpr DWORD kPipeBuffer = 65536;

[[noreturn]] void ThrowLastError(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

UniqueHandle NewEvent(BOOL manual) {
  UniqueHandle event(CreateEventW(nullptr, manual, FALSE, nullptr));
  if (event == nullptr) ThrowLastError("event");
  return event;
}

// Returns an SDDL descriptor that grants access to SYSTEM, administrators and `allowed`, and denies
// remote users. `allowed` can read and write, but not create an instance of the pipe. The owner, by
// which clients recognize the service's pipe, is SYSTEM, the administrators or this account.
std::wstring PipeAccess(const std::vector<std::wstring>& allowed) {
  const PipeCaller self = CallerOf(GetCurrentProcessId());
  std::wstring access = self.privileged && self.account != kSystem ? L"O:BA" : L"O:" + self.account;
  access += L"D:P(D;;GA;;;NU)(A;;GA;;;SY)(A;;GA;;;BA)";
  // FILE_GENERIC_READ, FILE_WRITE_DATA and FILE_WRITE_ATTRIBUTES. GENERIC_WRITE would include the
  // right to create an instance, and so to pose as the server to other clients.
  for (const std::wstring& sid : allowed) access += L"(A;;0x12018b;;;" + sid + L")";
  return access;
}

}  // namespace

std::wstring PipePath(const std::wstring& serviceName) {
  return L"\\\\.\\pipe\\VxHost-" + serviceName;
}

PipeServer::PipeServer(PipeOptions settings, Handler run, Report tell)
    : options(std::move(settings)),
      handler(std::move(run)),
      report(std::move(tell)),
      stop(NewEvent(TRUE)),
      left(NewEvent(FALSE)) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(
          PipeAccess(SidsOf(options.allowed)).c_str(), SDDL_REVISION_1, &raw, nullptr) == FALSE) {
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

// Keeps an instance open at all times, so that no other process can take the pipe's name: creates
// the next one before serving or closing the current one. If that fails, the instances in use keep
// the name.
void PipeServer::Listen() noexcept {
  UniqueHandle pipe;
  UniqueHandle used;  // connected to a client, which may be gone
  PipeCaller client;  // the client of `used`
  bool refused = false;
  bool open = false;
  while (true) {
    try {
      JoinThoseThatAreOver();
      const bool first = connections.empty() && used == nullptr;
      if (pipe == nullptr) pipe = NewInstance(first);
      const DWORD error = GetLastError();
      if (used != nullptr) {
        Admit(std::exchange(used, nullptr), std::exchange(client, {}));
      }
      if (pipe != nullptr) {
        if (!std::exchange(open, true)) report(L"INFO", kNameFree + options.path);
        refused = false;
        if (PipeMessages(pipe.get(), stop.get()).Connect() == PipeOutcome::Stopped) return;
        used = std::move(pipe);
        client = Identify(used.get());  // now, because the client may exit while it waits
        if (!WaitForRoom()) return;
        continue;
      }
      open = open && !first;
      if (!std::exchange(refused, true)) {
        report(L"ERROR", (first ? kNameTaken : kNotOpened) + options.path + L" (error " +
                             std::to_wstring(error) + L")");
      }
    } catch (const std::exception&) {
      report(L"ERROR", kNoMemory);
    }
    const auto patience = static_cast<DWORD>(options.retry.count());
    if (WaitForSingleObject(stop.get(), patience) != WAIT_TIMEOUT) return;
  }
}

// Waits until another client can be served. Returns false if the server stops first.
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
  connections.remove_if([](Connection& connection) {
    const bool over = connection.over;
    if (over) connection.thread.Join();
    return over;
  });
}

PipeCaller PipeServer::Identify(Platform::RawHandle pipe) const {
  ULONG processId = 0;
  if (GetNamedPipeClientProcessId(pipe, &processId) == FALSE) return {};
  return options.identify(processId);
}

// Returns why `caller` is denied a connection, or null if it is accepted. One account must not lock
// out the others, and none may lock out SYSTEM and administrators, who repair faults.
const wchar_t* PipeServer::WhyTurnedAway(const PipeCaller& caller) const {
  if (caller.privileged) return nullptr;
  // Otherwise, an account could use such clients to exceed its limit.
  if (caller.account.empty()) return kUnknown;
  const auto places = std::count_if(connections.begin(), connections.end(), [&](const auto& other) {
    return !other.caller.privileged && other.caller.account == caller.account;
  });
  if (static_cast<std::size_t>(places) >= options.perAccount) return kAccountIsFull;
  return connections.size() + options.reserved >= options.clients ? kReserved : nullptr;
}

void PipeServer::Admit(UniqueHandle pipe, PipeCaller caller) {
  if (caller.processId == 0) return;  // the client is gone, or memory ran out
  if (const wchar_t* const why = WhyTurnedAway(caller)) {
    Warn(why, caller.account.empty() ? CallerName(caller) : caller.account);
    return;
  }
  Connection& connection = connections.emplace_back();
  connection.pipe = std::move(pipe);
  connection.caller = std::move(caller);
  try {
    connection.thread = Platform::Thread([this, &connection] { Serve(connection); });
  } catch (const std::exception&) {  // no thread can be created, or memory ran out
    connections.pop_back();
    Warn(kNoThread);
  }
}

void PipeServer::Warn(const wchar_t* why, const std::wstring& who) {
  const std::uint64_t now = Platform::CurrentMachine().clock->TickCount();
  std::uint64_t more = 0;
  {
    const std::lock_guard guard(lock);
    auto* const warning = std::ranges::find_if(
        warnings, [why](const Warning& w) { return w.why == why || w.why == nullptr; });
    if (warning->why != nullptr && now < warning->next) {
      ++warning->more;
      return;
    }
    more = std::exchange(warning->more, 0);
    *warning = {why, now + static_cast<std::uint64_t>(options.quiet.count())};
  }
  if (who.empty() && more == 0) return report(L"WARNING", why);  // allocates nothing
  report(L"WARNING", why + who + (more == 0 ? L"" : kMore + std::to_wstring(more) + kSinceLast));
}

void PipeServer::Serve(Connection& connection) noexcept {
  try {
    PipeMessages messages(connection.pipe.get(), stop.get());
    std::wstring client;
    std::string message;
    while (messages.Read(message, kLongestCommand, options.idle) == PipeOutcome::Done) {
      if (client.empty()) client = CallerName(connection.caller);
      const auto command = ParseCommand(message);
      if (!command) {
        Warn(kRubbish, client);
        break;
      }
      const std::string result = WriteResult(handler(*command, client));
      if (result.size() > kLongestResult) {
        Warn(kTooLong, client);
        break;
      }
      const PipeOutcome outcome = messages.Write(result, options.stuck);
      if (outcome == PipeOutcome::TimedOut) Warn(kTooSlow, client);
      if (outcome != PipeOutcome::Done) break;
    }
  } catch (const std::exception&) {
    report(L"ERROR", L"a connection ended, because memory ran out");
  }
  // Unlike disconnecting, closing does not discard a result that the client has not read yet.
  connection.pipe.reset();
  connection.over = true;
  SetEvent(left.get());
}

}  // namespace Vx::Hosting::ServiceHost
