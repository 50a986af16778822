// minimal_host MODULE: a minimal service host, in C++, with RAII owners that release everything in
// order. MODULE is the module's full path. Prints each step, and exits with 0 if all succeeded.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <windows.h>

#include <objbase.h>

#include "host/vx_service.h"

namespace {

namespace Contract = Vx::Tessel::Server::Services;

// Sets up COM as the module needs it. COM security is set once per process. With dynamic cloaking,
// the module's calls to other processes use the identity of the user that it impersonates. If the
// host does not set it, the module does, without cloaking.
class Com {
 public:
  Com() {
    HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(result)) {
      result = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                    RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_DYNAMIC_CLOAKING,
                                    nullptr);
    }
    if (FAILED(result)) {
      throw std::runtime_error("COM cannot be set up: status " + std::to_string(result));
    }
  }
  Com(const Com&) = delete;
  Com& operator=(const Com&) = delete;
  ~Com() { CoUninitialize(); }
};

// Frees the module. Declared before the service, so that the service is destroyed first.
struct ModuleFreer {
  void operator()(HMODULE module) const noexcept {
    FreeLibrary(module);  // the module stays loaded until its last thread has exited
    std::printf("freed\n");
  }
};
using Module = std::unique_ptr<std::remove_pointer_t<HMODULE>, ModuleFreer>;

struct ServiceDestroyer {
  void operator()(Contract::VxService* service) const noexcept {
    service->Destroy(1);  // bit 0: also frees the object
    std::printf("destroyed\n");
  }
};
using Service = std::unique_ptr<Contract::VxService, ServiceDestroyer>;

// A client of the service. Any thread can create one.
class Client {
 public:
  // Borrows `owner`. `id` has at most 64 characters. A longer one terminates the process.
  Client(Contract::VxService& owner, const wchar_t* id) : service(owner) {
    if (service.CreateClientContext(id, &context) != 0) throw std::bad_alloc();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { service.ReleaseClientContext(&context); }

  // Runs a command, prints its result and returns the result code.
  std::uint32_t Execute(std::uint32_t id, const wchar_t* request) {
    wchar_t* response = nullptr;  // slot 3 leaves it unchanged if it rejects its arguments
    const std::uint32_t result = service.ExecuteCommand(context, id, request, &response, nullptr);
    std::printf("command %u: result 0x%08x, response %ls\n", id, result,
                response != nullptr ? response : L"(none)");
    service.FreeResponse(response);
    return result;
  }

 private:
  Contract::VxService& service;
  Contract::ClientContext* context = nullptr;
};

int Run(const wchar_t* path) {
  const Com com;
  // Loads the module by its full path, and its imports only from the system directory, so that no
  // library from another folder is loaded into the process.
  const Module module(LoadLibraryExW(path, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
  if (module == nullptr) {
    throw std::runtime_error("the module cannot be loaded: error " +
                             std::to_string(GetLastError()));
  }
  const auto create = reinterpret_cast<Contract::CreateServiceFunction>(
      reinterpret_cast<void*>(GetProcAddress(module.get(), Contract::kCreateServiceExport)));
  if (create == nullptr) throw std::runtime_error("this is not the module");
  const Service service(create());
  if (service == nullptr) throw std::bad_alloc();
  service->Start();  // returns at once; commands can now be executed
  std::printf("started\n");
  const std::uint32_t result = Client(*service, L"sample").Execute(22, L"{}");
  service->power_event_task(PBT_APMRESUMEAUTOMATIC);
  std::printf("forwarded power code %u\n", static_cast<unsigned>(PBT_APMRESUMEAUTOMATIC));
  return result != 0 ? 1 : 0;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  if (count != 2) {
    std::printf("usage: minimal_host FULL-PATH-OF-THE-MODULE\n");
    return 2;
  }
  try {
    return Run(arguments[1]);
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 1;
  }
}
