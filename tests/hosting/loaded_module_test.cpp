#include "hosting/loaded_module.h"

#include <cstdint>
#include <new>

#include <gtest/gtest.h>

#include "support/memory_shortage.h"

namespace Vx::Hosting {
namespace {

using Tessel::Server::Services::ClientContext;
using Tessel::Server::Services::CompletionCallback;
using Tessel::Server::Services::VxService;

// Counts the objects that it has given to its host and not yet received back.
class CountingService final : public VxService {
 public:
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
                          CompletionCallback*) override {
    *response = text;
    ++responses;
    return 0;
  }
  void FreeResponse(void*) override { --responses; }

  int contexts = 0;
  int responses = 0;

 private:
  ClientContext context{};
  wchar_t text[64] = L"{\"result\":\"longer than a string that needs no heap\"}";
};

TEST(ServiceSessionTest, GivesEverythingBackWhicheverAllocationFails) {
  CountingService counting;
  ServiceSession session(&counting);
  const std::wstring request(40, L' ');
  const std::wstring caller(40, L'c');
  bool failed = false;
  const auto execute = [&] {
    try {
      session.Execute(20, request, caller);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
  };
  Tests::FailEachAllocation(Tests::Shortage::Once, execute, [&] {
    EXPECT_EQ(counting.contexts, 0);
    EXPECT_EQ(counting.responses, 0);
  });
  EXPECT_TRUE(failed);
}

}  // namespace
}  // namespace Vx::Hosting
