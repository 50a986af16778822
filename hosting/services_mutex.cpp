#include "hosting/services_mutex.h"

#include <cstdio>
#include <cwchar>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "storage/cap_data_store.h"

namespace Vx::Hosting {

namespace {

using Tessel::Server::Services::ClientContext;
using Tessel::Server::Services::CompletionCallback;
using Tessel::Server::Services::VxService;

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

std::wstring GlobalName() {
  return std::wstring(L"Global\\") + Tessel::Server::Storage::CapDataStore::kMutexName;
}

bool SharesServicesStore() {
  DWORD session = 0;
  // If the session is unknown, assume that it is not the services'. If it is theirs after all, the
  // global mutex is the module's own, which a thread may acquire twice.
  if (ProcessIdToSessionId(GetCurrentProcessId(), &session) == FALSE) session = MAXDWORD;
  return NeedsServicesMutex(session, Variable(L"ProgramData"), Variable(L"ALLUSERSPROFILE"));
}

class LockingService final : public VxService {
 public:
  explicit LockingService(VxService& service) : inner(service) {}

  void* Destroy(unsigned flags) override {
    void* const address = inner.Destroy(flags);
    delete this;
    return address;
  }
  uint32_t CreateClientContext(const wchar_t* clientId, ClientContext** context) override {
    return inner.CreateClientContext(clientId, context);
  }
  uint32_t ReleaseClientContext(ClientContext** context) override {
    return inner.ReleaseClientContext(context);
  }
  uint32_t ExecuteCommand(ClientContext* context, uint32_t functionId, const wchar_t* request,
                          wchar_t** response, CompletionCallback* callback) override {
    const ServicesMutexHold hold(Mutex());
    return inner.ExecuteCommand(context, functionId, request, response, callback);
  }
  void FreeResponse(void* response) override { inner.FreeResponse(response); }
  void Start() override { inner.Start(); }
  void power_event_task(uint32_t eventType) override {
    const ServicesMutexHold hold(Mutex());
    inner.power_event_task(eventType);
  }
  void Reserved7() override { inner.Reserved7(); }
  bool oobe_event_task() override {
    const ServicesMutexHold hold(Mutex());
    return inner.oobe_event_task();
  }
  void OnSessionChange(uint32_t code) override {
    const ServicesMutexHold hold(Mutex());
    inner.OnSessionChange(code);
  }
  void Reserved10() override { inner.Reserved10(); }

 private:
  ~LockingService() = default;

  // Retries until a service has created it.
  ServicesMutex Mutex() {
    const std::lock_guard guard(lock);
    if (mutex == nullptr) mutex = ServicesMutexFor(StoreUse::Write);
    return mutex;
  }

  VxService& inner;
  std::mutex lock;
  ServicesMutex mutex;  // guarded by `lock`
};

}  // namespace

bool NeedsServicesMutex(std::uint32_t session, std::wstring_view programData,
                        std::wstring_view machineData) {
  if (session == 0) return false;
  return machineData.empty() || SameFolder(programData, machineData);
}

ServicesMutex ServicesMutexFor(StoreUse use) {
  if (!SharesServicesStore()) return nullptr;
  const std::wstring name = GlobalName();
  Platform::UniqueHandle opened(OpenMutexW(kAccess, FALSE, name.c_str()));
  const DWORD error = opened == nullptr ? GetLastError() : ERROR_SUCCESS;
  if (error == ERROR_SUCCESS) return opened;
  if (error == ERROR_FILE_NOT_FOUND) return nullptr;
  const std::string why =
      Utf8(name) + (error == ERROR_INVALID_HANDLE
                        ? " is an object of another kind, made by another program"
                        : " cannot be opened, error " + std::to_string(error));
  if (use == StoreUse::Write) {
    throw std::runtime_error("the machine's store cannot be kept from services: " + why +
                             "; run as administrator, or use --private-store");
  }
  static_cast<void>(std::fprintf(
      stderr, "vxhost: the store is read while services may write it: %s\n", why.c_str()));
  return nullptr;
}

ServicesMutexHold::ServicesMutexHold(ServicesMutex mutex, const HoldLimits& limits)
    : held(std::move(mutex)) {
  if (held != nullptr) AwaitStoreMutex(held.get(), limits);
}

ServicesMutexHold::~ServicesMutexHold() {
  if (held != nullptr) ReleaseMutex(held.get());
}

VxService* WithServicesMutex(VxService& inner) {
  if (!SharesServicesStore()) return &inner;
  return new LockingService(inner);
}

}  // namespace Vx::Hosting
