// The record of each command that changed something or was refused.

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/system_services.h"
#include "service/simulated_service.h"

namespace Vx::Tests {
namespace {

using CommandRecordsTest = SimulatedServiceTest;

TEST_F(CommandRecordsTest, NameWhatWasChangedOrWhyNot) {
  const std::wstring power =
      LR"({"powerEventType":4,"eventAction":2,"commandParams":)"
      LR"({"packageFamilyName":"f","appServiceName":"s","payload":{}}})";
  const std::wstring platform = LR"({"zephraEventType":1})";
  const std::wstring package =
      LR"({"catalogEvent":5,"catalogAction":1,"packageFamilyName":"Maker.App_r4x2m8kq7tn3b",)"
      LR"("catalogActionParams":{"path":"C:\\a.exe"}})";
  const std::wstring watched = L" C:\\a.exe in Maker.App_r4x2m8kq7tn3b by client of ";
  const struct {
    std::uint32_t id;
    std::wstring request;
    std::vector<std::wstring> records;
    std::function<void()> before = [] {};
  } cases[] = {
      {22, L"{}", {}},
      {22, L"{", {L"command 22 refused:not_json by client status 536870915"}},
      {23, L"{}", {L"command 23 refused:unknown_command by client status 536870913"}},
      {6, L"{}", {L"command 6 refused:bad_member by client"}},
      {3, LR"({"keyName":"k"})", {L"command 3 done by client"}},
      {8, L"{}", {L"command 8 failed:earlier_lines by client"}},
      {9, power, {L"command 9 stored f/s by client of cabc10f4"}},
      {9, power, {L"command 9 refused:already_stored f/s by client of cabc10f4"}},
      {9, L"{}", {L"command 9 stored:unreadable by client of 977eb84b"}},
      {19, power, {L"command 19 removed f/s by client of cabc10f4"}},
      {19, power, {L"command 19 refused:not_stored f/s by client of cabc10f4"}},
      {14, platform, {L"command 14 stored:unreadable by client of 863537c0"}},
      {15, platform, {L"command 15 removed by client of 863537c0"}},
      {7, package, {L"command 7 refused:not_installed" + watched + L"469e89cb status 536870916"}},
      {7,
       package,
       {L"command 7 stored" + watched + L"469e89cb"},
       [this] { InstallApp(L"Maker.App"); }},
      {7, package, {L"command 7 refused:already_stored" + watched + L"469e89cb status 536870921"}},
      {7, L"{}", {L"command 7 refused:bad_member by client of 977eb84b status -2089484279"}},
      {11, L"{}", {L"command 11 not_started:earlier_lines by client"}},
      {13, LR"({"launched":true})", {L"command 13 done by client"}},
      {16, L"{}", {L"command 16 done by client"}},
      {18, L"{}", {L"command 18 done by client"}},
      {9,
       power,
       {L"command 9 refused:store_refused f/s by client of cabc10f4"},
       [this] { machine.faults.FailNamed("KernelObjects.LockMutex"); }},
      {17,
       L"{}",
       {L"command 17 refused:no_session_api by client status 536870922"},
       [this] { machine.system.RemoveApiSet(Platform::kSessionApiSet); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.id << " " << testing::PrintToString(c.request));
    machine.faults.Clear();
    c.before();
    log.Clear();
    host.Execute(c.id, c.request.c_str());
    EXPECT_EQ(log.Records(), c.records);
  }
}

}  // namespace
}  // namespace Vx::Tests
