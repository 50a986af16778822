// What the host sees when memory runs out.

#include <cstddef>
#include <cstdint>

#include <gmock/gmock.h>

#include "service/service_fixture.h"
#include "support/memory_shortage.h"

namespace Vx::Tests {
namespace {

using Tessel::Server::Services::ClientContext;
using Tessel::Server::Services::Orvane::OrvaneService;

class OutOfMemoryTest : public testing::Test, protected ServiceFixture {};

TEST_F(OutOfMemoryTest, ACommandFailsWithoutAnAnswerOrDoesWithoutTheMemory) {
  for (const std::uint32_t id : {22U, 20U, 21U, 12U, 2U, 9U, 13U}) {
    SCOPED_TRACE(id);
    wchar_t* response = nullptr;
    std::uint32_t result = 0;
    const auto execute = [&] {
      result = service->ExecuteCommand(context, id, L"{\"launched\":true}", &response, nullptr);
    };
    const auto check = [&] {
      EXPECT_THAT(result, testing::AnyOf(0U, 0x20000002U, 0x20000008U));
      EXPECT_TRUE(result != 0 || response != nullptr);
      service->FreeResponse(response);
      response = nullptr;
    };
    EXPECT_GT(FailEachAllocation(Shortage::Once, execute, check), 0U);
  }
}

TEST_F(OutOfMemoryTest, AResponseThatCannotBeAllocatedIsReported) {
  wchar_t* response = nullptr;
  std::uint32_t result = 0;
  const auto execute = [&] {
    result = service->ExecuteCommand(context, 22, L"{}", &response, nullptr);
  };
  const auto free = [&] { service->FreeResponse(response); };
  // The buffer of the response is the last allocation of this command.
  const std::size_t allocations = FailEachAllocation(Shortage::Once, execute, free);
  log.Clear();
  response = nullptr;
  MemoryShortage shortage(Shortage::Once, allocations - 1);
  execute();
  shortage.End();
  EXPECT_EQ(result, 0x20000002U);
  EXPECT_EQ(response, nullptr);
  EXPECT_TRUE(log.Has(L"error|OrvaneService::ExecuteCommand: malloc() returned NULL"));
}

TEST_F(OutOfMemoryTest, NeitherAServiceNorAContextIsMadeByHalf) {
  OrvaneService* other = nullptr;
  FailEachAllocation(
      Shortage::Once, [&] { other = OrvaneService::Create(); },
      [&] {
        if (other != nullptr) other->Destroy(1);
      });
  ClientContext* made = nullptr;
  std::uint32_t result = 0;
  FailEachAllocation(
      Shortage::Once, [&] { result = service->CreateClientContext(L"someone", &made); },
      [&] {
        EXPECT_EQ(result, made == nullptr ? 0x20000002U : 0U);
        service->ReleaseClientContext(&made);
      });
}

}  // namespace
}  // namespace Vx::Tests
