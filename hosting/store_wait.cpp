#include "hosting/store_wait.h"

#include <cstdint>
#include <cstdio>
#include <stdexcept>

#include "hosting/text.h"

#include <windows.h>

namespace Vx::Hosting {

namespace {

using std::chrono::milliseconds;

// As documented for NtQueryMutant. This toolchain's headers do not declare them.
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
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): an id in the form of a handle
  const auto id = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(owner.process));
  return "process " + std::to_string(id) + ProgramOf(id);
}

bool Take(HANDLE mutex, DWORD limit) {
  const DWORD outcome = WaitForSingleObject(mutex, limit);
  if (outcome == WAIT_FAILED) throw std::runtime_error("the store's mutex cannot be waited for");
  return outcome != WAIT_TIMEOUT;  // an abandoned mutex is acquired too
}

}  // namespace

void AwaitStoreMutex(Platform::RawHandle mutex, const HoldLimits& limits) {
  if (Take(mutex, static_cast<DWORD>(limits.notice.count()))) return;
  const std::string holder = HolderOf(mutex);
  static_cast<void>(std::fprintf(stderr, "vxhost: waiting for the store, which is held by %s\n",
                                 Printable(holder, LineBreaks::Replace).c_str()));
  const auto rest = limits.timeout - limits.notice;
  const bool endless = limits.timeout == milliseconds(0);
  if (Take(mutex, endless                  ? INFINITE
                  : rest > milliseconds(0) ? static_cast<DWORD>(rest.count())
                                           : 0)) {
    return;
  }
  throw std::runtime_error("the store is still held by " + HolderOf(mutex) +
                           "; --timeout waits longer");
}

}  // namespace Vx::Hosting
