#include "hosting/store_hold.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <stdexcept>
#include <string>

#include <windows.h>

#include "hosting/text.h"
#include "storage/cap_data_store.h"

namespace Vx::Hosting {

namespace {

using std::chrono::milliseconds;
using Tessel::Server::Storage::CapDataStore;

constexpr DWORD kAccess = SYNCHRONIZE | MUTEX_MODIFY_STATE;  // granted to administrators

std::wstring Variable(const wchar_t* name) {
  std::wstring value(kLongestPath, L'\0');
  value.resize(GetEnvironmentVariableW(name, value.data(), DWORD{kLongestPath}));
  return value;
}

std::wstring_view WithoutSlash(std::wstring_view folder) {
  return folder.substr(0, folder.find_last_not_of(L'\\') + 1);
}

bool SameFolder(std::wstring_view one, std::wstring_view other) {
  one = WithoutSlash(one);
  other = WithoutSlash(other);
  return one.size() == other.size() && _wcsnicmp(one.data(), other.data(), one.size()) == 0;
}

bool SharesServicesStore() {
  DWORD session = 0;
  // If the session is unknown, assume that it is not the services' session. If it is, the global
  // mutex is the module's own, which a thread may acquire more than once.
  if (ProcessIdToSessionId(GetCurrentProcessId(), &session) == FALSE) session = MAXDWORD;
  return NeedsServicesMutex(session, Variable(L"ProgramData"), Variable(L"ALLUSERSPROFILE"));
}

// Declared as documented for NtQueryMutant, because this toolchain's headers lack them.
struct MutantOwner {
  HANDLE process;
  HANDLE thread;
};
using QueryMutant = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);

std::string ProgramOf(DWORD process) {
  const Platform::UniqueHandle handle(
      OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process));
  std::wstring path(kLongestPath, L'\0');
  auto length = static_cast<DWORD>(path.size());
  if (handle == nullptr || QueryFullProcessImageNameW(handle.get(), 0, path.data(), &length) == 0) {
    return {};
  }
  path.resize(length);
  return " (" + Utf8(path) + ")";
}

std::string HolderOf(HANDLE mutex) {
  constexpr int kOwnerInformation = 1;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): functions are looked up untyped
  const auto query = reinterpret_cast<QueryMutant>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryMutant")));
  MutantOwner owner{};
  if (query == nullptr || query(mutex, kOwnerInformation, &owner, sizeof owner, nullptr) < 0 ||
      owner.process == nullptr) {
    return "another process, which Windows does not name";
  }
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a process ID stored as a handle
  const auto id = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(owner.process));
  return "process " + std::to_string(id) + ProgramOf(id);
}

bool Take(HANDLE mutex, DWORD limit) {
  const DWORD outcome = WaitForSingleObject(mutex, limit);
  if (outcome == WAIT_FAILED) throw std::runtime_error("cannot wait for the store's mutex");
  return outcome != WAIT_TIMEOUT;  // an abandoned mutex is acquired too
}

// Acquires one of the store's mutexes. After `limits.notice`, reports the process that holds it.
void AwaitStoreMutex(HANDLE mutex, const HoldLimits& limits) {
  if (Take(mutex, static_cast<DWORD>(limits.notice.count()))) return;
  const std::string holder = HolderOf(mutex);
  static_cast<void>(std::fprintf(stderr, "vxhost: waiting for the store, which is held by %s\n",
                                 Printable(holder, LineBreaks::Replace).c_str()));
  const auto rest = std::max(limits.timeout - limits.notice, milliseconds(0));
  const bool endless = limits.timeout == milliseconds(0);
  if (Take(mutex, endless ? INFINITE : static_cast<DWORD>(rest.count()))) return;
  throw std::runtime_error("the store is still held by " + HolderOf(mutex) +
                           "; --timeout waits longer");
}

}  // namespace

bool NeedsServicesMutex(std::uint32_t session, std::wstring_view programData,
                        std::wstring_view machineData) {
  if (session == 0) return false;
  return machineData.empty() || SameFolder(programData, machineData);
}

ServicesMutex ServicesMutexFor(StoreUse use) {
  if (!SharesServicesStore()) return nullptr;
  const std::wstring name = std::wstring(L"Global\\") + CapDataStore::kMutexName;
  Platform::UniqueHandle opened(OpenMutexW(kAccess, FALSE, name.c_str()));
  const DWORD error = opened == nullptr ? GetLastError() : ERROR_SUCCESS;
  if (error == ERROR_SUCCESS) return opened;
  if (error == ERROR_FILE_NOT_FOUND) return nullptr;
  const std::string why =
      Utf8(name) + (error == ERROR_INVALID_HANDLE
                        ? " is an object of another kind, made by another program"
                        : " cannot be opened, error " + std::to_string(error));
  if (use == StoreUse::Write) {
    throw std::runtime_error("the machine's store cannot be locked against services: " + why +
                             "; run as administrator, or use --private-store");
  }
  static_cast<void>(std::fprintf(
      stderr, "vxhost: the store is read while services may write it: %s\n", why.c_str()));
  return nullptr;
}

ServicesMutexHold::ServicesMutexHold(StoreUse use, const HoldLimits& limits)
    : held(ServicesMutexFor(use)) {
  if (held != nullptr) AwaitStoreMutex(held.get(), limits);
}

ServicesMutexHold::~ServicesMutexHold() {
  if (held != nullptr) ReleaseMutex(held.get());
}

StoreHold::StoreHold(StoreUse use, const HoldLimits& limits)
    : services(use, limits), session(OpenMutexW(kAccess, FALSE, CapDataStore::kMutexName)) {
  if (session != nullptr) {
    AwaitStoreMutex(session.get(), limits);
  } else if (GetLastError() != ERROR_FILE_NOT_FOUND) {
    throw std::runtime_error("the store's mutex cannot be opened, error " +
                             std::to_string(GetLastError()) + "; run as administrator");
  }
}

StoreHold::~StoreHold() {
  if (session != nullptr) ReleaseMutex(session.get());
}

}  // namespace Vx::Hosting
