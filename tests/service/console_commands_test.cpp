// The commands that ask about, or act for, the user at the console.

#include <cstdint>
#include <string>

#include <gmock/gmock.h>

#include "service/simulated_service.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"

namespace Vx::Tests {
namespace {

namespace Orvane = Tessel::Server::Services::Orvane;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint32_t kFailed = 0x20000002;
constexpr wchar_t kLaunched[] = L"{\"result\":{\"launched\":true}}";

class ConsoleCommandsTest : public SimulatedServiceTest {
 protected:
  ConsoleCommandsTest() {
    InstallApp(L"App");
    InstallApp(L"7C3B9E40.Qubo");
  }

  Reply Execute(std::uint32_t id, const std::wstring& request) {
    return host.Execute(id, request.c_str());
  }
};

TEST_F(ConsoleCommandsTest, APackageIsInstalledWhenTheConsoleUserHasIt) {
  const std::wstring installed = L"{\"result\":{\"installed\":true}}";
  const std::wstring absent = L"{\"result\":{\"installed\":false}}";
  const std::wstring request = L"{\"packageFamilyName\":\"App_r4x2m8kq7tn3b\"}";
  EXPECT_EQ(Execute(6, request).response, installed);
  EXPECT_EQ(Execute(6, L"{\"packageFamilyName\":\"Other_x\"}").response, absent);
  EXPECT_EQ(Execute(6, L"{\"packageFamilyName\":7}").response, absent);

  // A revert fails when the answer is there already.
  for (const char* call : {"Sessions.QueryUserToken", "Sessions.Impersonate",
                           "Packages.FindByFamily", "Sessions.Revert"}) {
    SCOPED_TRACE(call);
    const bool reverting = std::string(call) == "Sessions.Revert";
    host.log.Clear();
    machine.faults.FailNamed(call);
    const Reply reply = Execute(6, request);
    EXPECT_EQ(reply.result, 0U);
    EXPECT_EQ(reply.response, reverting ? installed : absent);
    EXPECT_EQ(host.log.Has(L"warning|Failed to RevertToSelf"), reverting);
  }
  machine.faults.Clear();
  machine.users.LogOn(L"bob");
  EXPECT_EQ(Execute(6, request).response, absent);
  machine.users.DetachConsole();
  EXPECT_EQ(Execute(6, request).response, absent);
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
  EXPECT_TRUE(host.log.Has(L"info|RegistrationState code to be returned is 1"));
}

TEST_F(ConsoleCommandsTest, TheCompanionAppIsStartedWithTheParameterOfTheRequest) {
  EXPECT_EQ(Execute(11, L"").response, kLaunched);
  for (const wchar_t* parameter :
       {LR"(--page=1 \"x\")", LR"(first","parameter":"second)", LR"(before\u0000after)"}) {
    const std::wstring request = std::wstring(L"{\"parameter\":\"") + parameter + L"\"}";
    EXPECT_EQ(Execute(17, request).response, kLaunched);
  }
  const std::wstring alias = L"C:\\Users\\ann\\AppData\\Local\\Microsoft\\WindowsApps\\Qubo.exe";
  const std::wstring quoted = L"\"" + alias + L"\"";
  EXPECT_THAT(Started(), testing::ElementsAre(alias, quoted + L" --page=1 \"x\"",
                                              quoted + L" first", quoted + L" before"));
  machine.users.DetachConsole();
  EXPECT_EQ(Execute(11, L"").response, L"{\"result\":{\"launched\":false}}");
}

TEST_F(ConsoleCommandsTest, WithoutAReadableParameterNothingIsStarted) {
  for (const wchar_t* request : {L"{}", L"{\"parameter\":null}", L"{\"parameter\":5}", L"[]"}) {
    SCOPED_TRACE(testing::PrintToString(request));
    host.log.Clear();
    const Reply reply = Execute(17, request);
    EXPECT_EQ(reply.result, kFailed);
    EXPECT_EQ(reply.response, L"{}");
    EXPECT_THAT(host.log.Lines(), Contains(HasSubstr(L"Problem while parsing the parameter "
                                                     L"property of JSON's request. ")));
  }
  EXPECT_THAT(Started(), IsEmpty());
  EXPECT_EQ(Execute(17, L"{\"parameter\":\"\"}").response, kLaunched);
}

TEST_F(ConsoleCommandsTest, NoMarkReplacesADocument) {
  Tessel::Server::Storage::CapDataStore().mergeMember(
      Orvane::kServiceDocument, "n", Tessel::Server::Storage::BsonElement::Int32(1));
  for (const wchar_t* request : {L"{\"keyName\":\"OrvaneServiceDocument\"}", L"{}"}) {
    EXPECT_EQ(Execute(3, request).response, L"{\"result\":{\"setOperationOkay\":false}}");
    EXPECT_EQ(Execute(5, request).response, L"{\"result\":{\"skip\":false}}");
  }
  EXPECT_FALSE(
      Tessel::Server::Storage::CapDataStore().readDocument("OrvaneServiceDocument").Empty());
}

std::wstring StoredPackageRequests() {
  return Orvane::RequestManager(Orvane::kServiceDocument, Orvane::kPackageSubscriptions)
      .StoredRequests();
}

std::wstring PackageRequest(int event, int action) {
  return L"{\"catalogEvent\":" + std::to_wstring(event) + L",\"catalogAction\":" +
         std::to_wstring(action) +
         L",\"packageFamilyName\":\"App_r4x2m8kq7tn3b\",\"catalogActionParams\":{\"path\":\"C:"
         L"\\\\a.exe\"}}";
}

TEST_F(ConsoleCommandsTest, ARefusedPackageSubscriptionIsTakenBackAndExplained) {
  const std::wstring good = PackageRequest(5, 1);
  std::wstring gone = good;
  gone.replace(gone.find(L"App_"), 4, L"Bpp_");
  const struct {
    std::wstring request;
    std::uint32_t result;
    std::wstring problem;
    bool nobody = false;
  } kCases[] = {
      {gone, 0x20000004, L"packageFamilyName names a package that is not installed"},
      {PackageRequest(6, 1), 0x20000006, L"catalogEvent is unknown"},
      {PackageRequest(5, 3), 0x20000007, L"catalogAction is unknown"},
      {L"{}", 0x83750009, L"request failed: catalogEvent is missing"},
      {L"{\"catalogEvent\":\"5\"}", 0x8000000E,
       L"request failed: catalogEvent is a value of another type"},
      {good, 0x20000005, L"request needs a user at the console", true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.problem));
    host.log.Clear();
    if (c.nobody) machine.users.DetachConsole();
    // White space must not hide the request from its removal.
    const Reply reply = Execute(7, L"{ " + c.request.substr(1));
    EXPECT_EQ(reply.result, c.result);
    EXPECT_EQ(reply.response, L"{}");
    EXPECT_THAT(StoredPackageRequests(), testing::AnyOf(L"", L"[]"));
    EXPECT_THAT(host.log.Lines(), Contains(HasSubstr(L"error|OrvaneService - RegisterAppPackage"
                                                     L"Event threw hresult_error: Message: ")));
    EXPECT_THAT(host.log.Lines(), Contains(HasSubstr(L"function id 7: " + c.problem)).Times(1));
  }
}

TEST_F(ConsoleCommandsTest, AStoredListThatCannotBeReadIsWhatCommand7Answers) {
  Tessel::Server::Storage::CapDataStore().mergeMember(
      Orvane::kServiceDocument, Orvane::kPackageSubscriptions,
      Tessel::Server::Storage::BsonElement::Text("no list"));
  const Reply reply = Execute(7, PackageRequest(7, 1));
  EXPECT_EQ(reply.result, 0x83750007);
  EXPECT_EQ(reply.response, L"{}");
  EXPECT_EQ(StoredPackageRequests(), L"no list");
}

TEST_F(ConsoleCommandsTest, APackageSubscriptionStaysThatIsRepeatedOrEndsInAStandardException) {
  const std::wstring other = PackageRequest(5, 1);
  EXPECT_EQ(Execute(7, other).result, 0U);
  const std::wstring request = PackageRequest(7, 1);
  machine.faults.FailNamed("Threads.Start");
  EXPECT_EQ(Execute(7, request).result, 0x20000008U);
  EXPECT_THAT(host.log.Lines(),
              Contains(HasSubstr(L"error|OrvaneService - RegisterAppPacakgeEvent threw ")));
  machine.faults.Clear();
  EXPECT_EQ(Execute(7, request).result, 0x20000009U);
  EXPECT_THAT(
      host.log.Lines(),
      Contains(L"error|OrvaneService - RegisterAppPackageEvent threw hresult_error: Message: "
               L"the same subscription, the delay apart, is stored already, Code: 1"));
  EXPECT_EQ(StoredPackageRequests(), L"[" + other + L"," + request + L"]");
}

}  // namespace
}  // namespace Vx::Tests
