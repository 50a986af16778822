#pragma once

#include "service/orvane_service.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tests {

constexpr std::uint64_t kPowerOn = 133'655'000'000'000'000;  // 2024-07-15T03:33:20Z as a FILETIME

struct Reply {
  std::uint32_t result = 0;
  std::optional<std::wstring> response;  // empty: a null pointer
  bool untouched = false;                // the response pointer was left alone
};

struct ServiceFixture {
  ServiceFixture() { Renew(); }
  ~ServiceFixture() { End(); }

  void End() {
    if (service == nullptr) return;
    service->ReleaseClientContext(&context);
    service.reset();
  }

  void Renew() {
    End();
    service.reset(Service::Create());
    if (service != nullptr) service->CreateClientContext(L"client", &context);
  }

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

  using Service = Tessel::Server::Services::Orvane::OrvaneService;
  struct Unmake {
    void operator()(Service* owned) const { owned->Destroy(1); }
  };

  std::unique_ptr<Service, Unmake> service;
  Tessel::Server::Services::ClientContext* context = nullptr;
};

// A service with its own store, on a simulated machine with ann signed in at the console.
class SimulatedServiceTest : public StoreTest {
 protected:
  SimulatedServiceTest() { machine.clock.SetUtcFileTime(kPowerOn); }
  ~SimulatedServiceTest() override {
    host.End();
    machine.clock.Advance(std::chrono::hours(2));  // outlasts the service's delayed launches
  }

  void InstallApp(const std::wstring& name) {
    const std::wstring publisher = L"r4x2m8kq7tn3b";
    machine.packages.Install({.familyName = name + L"_" + publisher,
                              .fullName = name + L"_2.0.0.0_x64__" + publisher,
                              .folder = {}},
                             L"ann");
  }

  std::vector<std::wstring> Started() const {
    std::vector<std::wstring> lines;
    for (const auto& process : machine.processes.Started()) {
      lines.push_back(process.start.commandLine);
    }
    return lines;
  }

  ServiceFixture host;
};

}  // namespace Vx::Tests
