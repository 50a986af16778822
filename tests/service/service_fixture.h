#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "service/orvane_service.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace Vx::Tests {

// What the host sees of one command.
struct Reply {
  std::uint32_t result = 0;
  std::optional<std::wstring> response;  // empty for a null pointer
  bool untouched = false;                // the response pointer was not written
};

// A service with its own store.
class ServiceFixture {
 public:
  ServiceFixture() { service->CreateClientContext(L"client", &context); }
  ServiceFixture(const ServiceFixture&) = delete;
  ServiceFixture& operator=(const ServiceFixture&) = delete;
  ~ServiceFixture() { End(); }

  // Destroys the service, as the host does.
  void End() {
    if (service == nullptr) return;
    service->ReleaseClientContext(&context);
    service.reset();
  }

  // Replaces the service by a new one, or by none when the factory fails.
  void Renew() {
    End();
    service.reset(Service::Create());
    if (service != nullptr) service->CreateClientContext(L"client", &context);
  }

  std::wstring StorePath() const { return store.FilePath(); }

  // Makes every later attempt to open the store fail.
  void BlockStore() const { store.Block(); }

  Reply Execute(std::uint32_t id, const wchar_t* request) { return Execute(id, request, context); }

  Reply Execute(std::uint32_t id, const wchar_t* request,
                Tessel::Server::Services::ClientContext* caller) {
    wchar_t marker = 0;
    wchar_t* response = &marker;
    Reply reply;
    reply.result = service->ExecuteCommand(caller, id, request, &response, nullptr);
    reply.untouched = response == &marker;
    if (reply.untouched || response == nullptr) return reply;
    reply.response = response;
    service->FreeResponse(response);
    return reply;
  }

 private:
  using Service = Tessel::Server::Services::Orvane::OrvaneService;
  struct Unmake {
    void operator()(Service* owned) const { owned->Destroy(1); }
  };

  PrivateStore store;

 public:
  std::unique_ptr<Service, Unmake> service{Service::Create()};
  Tessel::Server::Services::ClientContext* context = nullptr;
  LogCapture log;
};

}  // namespace Vx::Tests
