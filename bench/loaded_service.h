#pragma once

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <windows.h>

#include "host/vx_service.h"

namespace Vx::Bench {

// The module, loaded as its host loads it, with one service and one client context.
class LoadedService {
 public:
  explicit LoadedService(const std::wstring& path)
      : library(LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
    namespace Services = Tessel::Server::Services;
    if (library == nullptr) throw std::runtime_error("cannot load the module");
    const auto create = reinterpret_cast<Services::CreateServiceFunction>(
        reinterpret_cast<void*>(GetProcAddress(library, Services::kCreateServiceExport)));
    service = create == nullptr ? nullptr : create();
    if (service == nullptr) throw std::runtime_error("the module gives no service");
    service->CreateClientContext(L"bench", &context);
  }
  LoadedService(const LoadedService&) = delete;
  LoadedService& operator=(const LoadedService&) = delete;
  ~LoadedService() {
    service->ReleaseClientContext(&context);
    service->Destroy(1);
    FreeLibrary(library);
  }

  // Ends the program if the command has another result. Thread-safe.
  void Run(std::uint32_t id, const std::wstring& request, std::uint32_t expected) {
    wchar_t* response = nullptr;
    if (service->ExecuteCommand(context, id, request.c_str(), &response, nullptr) != expected) {
      std::abort();
    }
    service->FreeResponse(response);
  }

  void PowerEvent(std::uint32_t code) { service->power_event_task(code); }

 private:
  HMODULE library;
  Tessel::Server::Services::VxService* service = nullptr;
  Tessel::Server::Services::ClientContext* context = nullptr;
};

}  // namespace Vx::Bench
