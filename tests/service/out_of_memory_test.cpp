// What the host sees when memory runs out. The linker redirects every malloc of this program, and
// so every operator new, to the function below.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <gmock/gmock.h>

#include "service/service_fixture.h"

namespace {

constexpr std::size_t kNever = ~std::size_t{0};
std::size_t untilFailure = kNever;  // calls of malloc that still succeed, on one thread

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
extern "C" void* __real_malloc(std::size_t size);
extern "C" void* __wrap_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) {
  if (untilFailure == kNever || untilFailure-- != 0) return __real_malloc(size);
  untilFailure = kNever;
  return nullptr;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Tests {
namespace {

using Tessel::Server::Services::ClientContext;
using Tessel::Server::Services::Orvane::OrvaneService;

class OutOfMemoryTest : public testing::Test, protected ServiceFixture {
 protected:
  // Runs `action` with its first, second, ... allocation failing, until none is left to fail.
  // Returns the number of allocations.
  template <typename Action>
  static std::size_t FailEachAllocation(Action&& action) {
    for (std::size_t i = 0;; ++i) {
      SCOPED_TRACE(testing::Message() << "allocation " << i);
      untilFailure = i;
      action();
      const bool failed = untilFailure == kNever;
      untilFailure = kNever;
      if (!failed) return i;
    }
  }
};

TEST_F(OutOfMemoryTest, ACommandFailsWithoutAnAnswerOrDoesWithoutTheMemory) {
  for (const std::uint32_t id : {22U, 20U, 21U, 12U, 2U, 9U, 13U}) {
    SCOPED_TRACE(id);
    const std::size_t allocations = FailEachAllocation([&] {
      wchar_t* response = nullptr;
      const std::uint32_t result =
          service->ExecuteCommand(context, id, L"{\"launched\":true}", &response, nullptr);
      const std::size_t left = untilFailure;
      untilFailure = kNever;
      EXPECT_THAT(result, testing::AnyOf(0U, 0x20000002U, 0x20000008U));
      EXPECT_TRUE(result != 0 || response != nullptr);
      service->FreeResponse(response);
      untilFailure = left;
    });
    EXPECT_GT(allocations, 0U);
  }
}

TEST_F(OutOfMemoryTest, AResponseThatCannotBeAllocatedIsReported) {
  // The buffer of the response is the last allocation of this command.
  log.Clear();
  wchar_t* response = nullptr;
  std::size_t allocations = FailEachAllocation([&] {
    service->ExecuteCommand(context, 22, L"{}", &response, nullptr);
    service->FreeResponse(response);
  });
  log.Clear();
  untilFailure = allocations - 1;
  EXPECT_EQ(service->ExecuteCommand(context, 22, L"{}", &response, nullptr), 0x20000002U);
  EXPECT_EQ(response, nullptr);
  EXPECT_TRUE(log.Has(L"error|OrvaneService::ExecuteCommand: malloc() returned NULL"));
}

TEST_F(OutOfMemoryTest, NeitherAServiceNorAContextIsMadeByHalf) {
  FailEachAllocation([&] {
    OrvaneService* other = OrvaneService::Create();
    if (other != nullptr) other->Destroy(1);
  });
  FailEachAllocation([&] {
    ClientContext* made = nullptr;
    const std::uint32_t result = service->CreateClientContext(L"someone", &made);
    EXPECT_EQ(result, made == nullptr ? 0x20000002U : 0U);
    service->ReleaseClientContext(&made);
  });
}

}  // namespace
}  // namespace Vx::Tests
