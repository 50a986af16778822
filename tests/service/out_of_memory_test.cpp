#include "service/simulated_service.h"
#include "storage/request_manager.h"
#include "support/memory_shortage.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

using namespace Tessel::Server::Services::Orvane;

class OutOfMemoryTest : public testing::Test {
 protected:
  PrivateStore store;
  ServiceFixture host;
  LogCapture log;
};

constexpr wchar_t kPower[] =
    LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\a.exe","arguments":"b"}})";
constexpr wchar_t kOtherPower[] =
    LR"({"powerEventType":18,"eventAction":1,"commandParams":{"path":"C:\\a.exe"}})";
constexpr wchar_t kZephra[] =
    LR"({"zephraEventType":2,"eventAction":1,"commandParams":{"path":"C:\\a.exe","arguments":"b"}})";
constexpr wchar_t kLaunched[] = LR"({"launched":true})";

TEST_F(OutOfMemoryTest, ACommandFailsWithoutAnAnswerOrDoesWithoutTheMemory) {
  static constexpr struct {
    std::uint32_t id;
    const wchar_t* request;
  } kCases[] = {{22, L"{}"},       {20, L"{}"},    {21, L"{}"},       {12, L"{}"},  {2, L"{}"},
                {3, kLaunched},    {5, kLaunched}, {13, kLaunched},   {9, kPower},  {9, L"{}"},
                {19, kOtherPower}, {14, kZephra},  {14, kOtherPower}, {15, kPower}, {16, L"{}"}};
  ASSERT_EQ(host.Execute(9, kPower).result, 0U);  // already stored
  ASSERT_EQ(host.Execute(14, kZephra).result, 0U);
  for (const auto kind : {Shortage::Lasting, Shortage::Once}) {
    for (const auto& c : kCases) {
      SCOPED_TRACE(testing::Message() << "id " << c.id);
      wchar_t* response = nullptr;
      std::uint32_t result = 0;
      const auto execute = [&] {
        result = host.service->ExecuteCommand(host.context, c.id, c.request, &response, nullptr);
      };
      const auto check = [&] {
        EXPECT_THAT(result, testing::AnyOf(0U, 0x20000002U, 0x20000008U));
        EXPECT_TRUE(result != 0 || response != nullptr);
        // A list must not appear empty because memory ran out.
        EXPECT_TRUE(result != 0 || c.id != 20 || std::wcsstr(response, kPower) != nullptr);
        host.service->FreeResponse(response);
        response = nullptr;
      };
      EXPECT_GT(FailEachAllocation(kind, execute, check), 0U);
    }
  }
}

TEST_F(OutOfMemoryTest, ACompletionIsReportedOnlyIfTheRequestIsNoLongerStored) {
  RequestManager requests(kServiceDocument, kPowerSubscriptions);
  bool completed = false;
  const auto complete = [&] { completed = requests.CompleteRequest(kPower); };
  const auto check = [&] {
    EXPECT_EQ(completed, host.Execute(20, L"{}").response->find(kPower) == std::wstring::npos);
    EXPECT_EQ(host.Execute(9, kPower).result, 0U);
  };
  ASSERT_EQ(host.Execute(9, kPower).result, 0U);
  EXPECT_GT(FailEachAllocation(Shortage::Once, complete, check), 0U);
}

TEST_F(OutOfMemoryTest, AResponseThatCannotBeAllocatedIsReported) {
  wchar_t* response = nullptr;
  std::uint32_t result = 0;
  const auto execute = [&] {
    result = host.service->ExecuteCommand(host.context, 22, L"{}", &response, nullptr);
  };
  const auto free = [&] { host.service->FreeResponse(response); };
  // The response buffer is this command's last allocation.
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
  decltype(host.context) made = nullptr;
  std::uint32_t result = 0;
  FailEachAllocation(
      Shortage::Once, [&] { result = host.service->CreateClientContext(L"someone", &made); },
      [&] {
        EXPECT_EQ(result, made == nullptr ? 0x20000002U : 0U);
        host.service->ReleaseClientContext(&made);
      });
}

}  // namespace
}  // namespace Vx::Tests
