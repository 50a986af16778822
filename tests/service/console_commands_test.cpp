// The commands that ask about, or act for, the user at the console.

#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "platform/machine.h"
#include "service/service_fixture.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"
#include "support/fake_console.h"

namespace Vx::Tests {
namespace {

namespace Orvane = Tessel::Server::Services::Orvane;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint32_t kFailed = 0x20000002;
constexpr wchar_t kFamily[] = L"7C3B9E40.Qubo_r4x2m8kq7tn3b";
constexpr wchar_t kFullName[] = L"7C3B9E40.Qubo_2.0.0.0_x64__r4x2m8kq7tn3b";
constexpr std::uint32_t kNobody = 0xFFFFFFFF;

class ConsoleCommandsTest : public testing::Test, protected ServiceFixture {
 protected:
  ConsoleCommandsTest() {
    console.installed[kFamily] = kFullName;
    console.staged = {kFullName};
    console.registered = {kFullName};
  }

  FakeConsole console;
  Platform::MachineScope scope{[this](Platform::Machine& machine) { console.Install(machine); }};
};

TEST_F(ConsoleCommandsTest, APackageIsInstalledWhenTheConsoleUserHasIt) {
  const std::wstring installed = L"{\"result\":{\"installed\":true}}";
  const std::wstring absent = L"{\"result\":{\"installed\":false}}";
  const std::wstring request = std::wstring(L"{\"packageFamilyName\":\"") + kFamily + L"\"}";
  EXPECT_EQ(Execute(6, request.c_str()).response, installed);
  EXPECT_EQ(console.impersonations, 1);
  EXPECT_FALSE(console.acting);
  EXPECT_EQ(Execute(6, L"{\"packageFamilyName\":\"Other_x\"}").response, absent);
  EXPECT_EQ(Execute(6, L"{\"packageFamilyName\":7}").response, absent);

  // The calls that Windows may refuse, and a revert that fails when the answer is there already.
  console.FailCall(FakeConsole::kNever);
  Execute(6, request.c_str());
  const std::vector<std::string> calls = console.calls;
  ASSERT_EQ(calls.back(), "Revert");
  for (std::size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(calls[i]);
    log.Clear();
    console.FailCall(i);
    const Reply reply = Execute(6, request.c_str());
    EXPECT_EQ(reply.result, 0U);
    EXPECT_EQ(reply.response, calls[i] == "Revert" ? installed : absent);
    EXPECT_EQ(log.Has(L"warning|Failed to RevertToSelf"), calls[i] == "Revert");
  }
  console.FailCall(FakeConsole::kNever);
  console.session = kNobody;
  EXPECT_EQ(Execute(6, request.c_str()).response, absent);
  EXPECT_THAT(console.calls, IsEmpty());
}

TEST_F(ConsoleCommandsTest, EachQuestionHasItsAnswer) {
  static constexpr struct {
    std::uint32_t id;
    const wchar_t* request;
    const wchar_t* answer;
  } kCases[] = {
      {5, L"{\"keyName\":\"a_reason\"}", L"\"skip\":false"},
      {3, L"{\"keyName\":\"a_reason\"}", L"\"setOperationOkay\":true"},
      {5, L"{\"keyName\":\"a_reason\"}", L"\"skip\":true"},
      {5, L"{\"keyName\":\"another\"}", L"\"skip\":false"},
      {5, L"{}", L"\"skip\":false"},
      // A machine without a lockdown library, registration data or a reason to launch.
      {0, L"", L"\"sMode\":0"},
      {4, L"{}", L"\"hasBeenInSMode\":false"},
      {10, L"", L"\"startingPoint\":0"},
      {8, L"", L"\"copied\":false"},
      {2, L"{}", L"\"registrationState\":99"},
  };
  for (const auto& c : kCases) {
    const Reply reply = Execute(c.id, c.request);
    EXPECT_EQ(reply.result, 0U);
    EXPECT_EQ(reply.response, std::wstring(L"{\"result\":{").append(c.answer).append(L"}}"));
  }
  Tessel::Server::Storage::CapDataStore().persist("registration_full_sent", "skipped_uwp");
  EXPECT_EQ(Execute(2, L"{}").response, L"{\"result\":{\"registrationState\":1}}");
  EXPECT_TRUE(log.Has(L"info|RegistrationState code to be returned is 1"));
}

TEST_F(ConsoleCommandsTest, TheCompanionAppIsStartedWithTheParameterOfTheRequest) {
  EXPECT_EQ(Execute(11, L"").response, L"{\"result\":{\"launched\":true}}");
  EXPECT_EQ(Execute(17, L"{\"parameter\":\"--page=1 \\\"x\\\"\"}").response,
            L"{\"result\":{\"launched\":true}}");
  ASSERT_EQ(console.started.size(), 2U);
  const std::wstring alias = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\Qubo.exe";
  EXPECT_EQ(console.started[0].commandLine, alias);
  EXPECT_EQ(console.started[1].commandLine, L"\"" + alias + L"\" --page=1 \"x\"");

  console.session = kNobody;
  EXPECT_EQ(Execute(11, L"").response, L"{\"result\":{\"launched\":false}}");
}

TEST_F(ConsoleCommandsTest, WithoutAReadableParameterNothingIsStarted) {
  for (const wchar_t* request : {L"{}", L"{\"parameter\":null}", L"{\"parameter\":5}", L"[]"}) {
    SCOPED_TRACE(testing::PrintToString(request));
    log.Clear();
    const Reply reply = Execute(17, request);
    EXPECT_EQ(reply.result, kFailed);
    EXPECT_EQ(reply.response, L"{}");
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"Problem while parsing the parameter property of "
                                                L"JSON's request. ")));
  }
  EXPECT_THAT(console.started, IsEmpty());
  EXPECT_EQ(Execute(17, L"{\"parameter\":\"\"}").response, L"{\"result\":{\"launched\":true}}");
}

std::wstring StoredPackageRequests() {
  return Orvane::RequestManager(Orvane::kServiceDocument, Orvane::kPackageSubscriptions)
      .StoredRequests();
}

std::wstring PackageRequest(int event, int action) {
  return L"{\"catalogEvent\":" + std::to_wstring(event) + L",\"catalogAction\":" +
         std::to_wstring(action) +
         L",\"packageFamilyName\":\"Family_x\",\"catalogActionParams\":{\"path\":\"C:\\\\a.exe\"}}";
}

TEST_F(ConsoleCommandsTest, ARefusedPackageSubscriptionIsTakenBackAndExplained) {
  const std::wstring good = PackageRequest(5, 1);
  const struct {
    const char* name;
    std::wstring request;
    bool packageGone;
    std::uint32_t session;
    std::uint32_t result;
    std::wstring problem;
  } kCases[] = {
      {"package gone", good, true, 1, 0x20000004,
       L"packageFamilyName names a package that is not installed"},
      {"nobody signed in", good, false, kNobody, 0x20000005,
       L"request needs a user at the console"},
      {"event", PackageRequest(6, 1), false, 1, 0x20000006, L"catalogEvent is unknown"},
      {"action", PackageRequest(5, 3), false, 1, 0x20000007, L"catalogAction is unknown"},
      {"no keys", L"{}", false, 1, 0x83750009, L"request failed: catalogEvent is missing"},
      {"type", L"{\"catalogEvent\":\"5\"}", false, 1, 0x8000000E,
       L"request failed: catalogEvent is a value of another type"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    log.Clear();
    console.staged.assign(c.packageGone ? 0 : 1, L"Family_x_full");
    console.session = c.session;
    // White space must not hide the request from its removal.
    const Reply reply = Execute(7, (L"{ " + c.request.substr(1)).c_str());
    EXPECT_EQ(reply.result, c.result);
    EXPECT_EQ(reply.response, L"{}");
    EXPECT_THAT(StoredPackageRequests(), testing::AnyOf(L"", L"[]"));
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"error|OrvaneService - RegisterAppPackageEvent "
                                                L"threw hresult_error: Message: ")));
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(L"function id 7: " + c.problem)).Times(1));
  }
}

TEST_F(ConsoleCommandsTest, AStoredListThatCannotBeReadIsWhatCommand7Answers) {
  Tessel::Server::Storage::CapDataStore().mergeMember(
      Orvane::kServiceDocument, Orvane::kPackageSubscriptions,
      Tessel::Server::Storage::BsonElement::Text("no list"));
  const Reply reply = Execute(7, PackageRequest(7, 1).c_str());
  EXPECT_EQ(reply.result, 0x83750007);
  EXPECT_EQ(reply.response, L"{}");
  EXPECT_EQ(StoredPackageRequests(), L"no list");
}

TEST_F(ConsoleCommandsTest, APackageSubscriptionStaysThatIsRepeatedOrEndsInAStandardException) {
  const std::wstring other = PackageRequest(5, 1);
  EXPECT_EQ(Execute(7, other.c_str()).result, 0U);
  const std::wstring request = PackageRequest(7, 1);
  console.FailCall(0);
  EXPECT_EQ(Execute(7, request.c_str()).result, 0x20000008U);
  EXPECT_THAT(console.calls, ElementsAre("FindForAllUsers"));
  EXPECT_TRUE(log.Has(L"error|OrvaneService - RegisterAppPacakgeEvent threw refused"));
  EXPECT_EQ(Execute(7, request.c_str()).result, 0x20000009U);
  EXPECT_THAT(
      log.Lines(),
      Contains(L"error|OrvaneService - RegisterAppPackageEvent threw hresult_error: Message: "
               L"the same subscription, the delay apart, is stored already, Code: 1"));
  EXPECT_EQ(StoredPackageRequests(), L"[" + other + L"," + request + L"]");
}

}  // namespace
}  // namespace Vx::Tests
