#pragma once

#include "host/vx_service.h"
#include "support/test.h"

namespace Vx::Hosting {

// Counts the objects that the host has not yet released, and calls `onUse` in each call that can
// use the store.
class FakeService final : public Tessel::Server::Services::VxService {
 public:
  using ClientContext = Tessel::Server::Services::ClientContext;

  void* Destroy(unsigned) override { return this; }
  uint32_t CreateClientContext(const wchar_t*, ClientContext** made) override {
    *made = &context;
    ++contexts;
    return 0;
  }
  uint32_t ReleaseClientContext(ClientContext**) override {
    --contexts;
    return 0;
  }
  uint32_t ExecuteCommand(ClientContext*, uint32_t, const wchar_t*, wchar_t** response,
                          Tessel::Server::Services::CompletionCallback*) override {
    onUse();
    *response = text;
    ++responses;
    return 7;
  }
  void FreeResponse(void*) override { --responses; }
  void power_event_task(uint32_t) override { onUse(); }
  bool oobe_event_task() override {
    onUse();
    return true;
  }
  void OnSessionChange(uint32_t) override { onUse(); }

  std::function<void()> onUse = [] {};
  int contexts = 0;
  int responses = 0;

 private:
  ClientContext context{};
  wchar_t text[64] = L"{\"result\":\"longer than a string that needs no heap\"}";
};

}  // namespace Vx::Hosting
