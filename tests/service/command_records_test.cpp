// The contents of command records. scenarios/ covers their decisions and reasons.

#include "platform/system_services.h"
#include "service/simulated_service.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

using CommandRecordsTest = SimulatedServiceTest;

TEST_F(CommandRecordsTest, NameWhatWasChangedOrWhyNot) {
  const std::wstring power =
      LR"({"powerEventType":4,"eventAction":2,"commandParams":)"
      LR"({"packageFamilyName":"f","appServiceName":"s","payload":{}}})";
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
      {9, power, {L"command 9 stored f/s by client of cabc10f4"}},
      {19, power, {L"command 19 removed f/s by client of cabc10f4"}},
      {7, package, {L"command 7 refused:not_installed" + watched + L"469e89cb status 536870916"}},
      {7,
       package,
       {L"command 7 stored" + watched + L"469e89cb"},
       [this] { InstallApp(L"Maker.App"); }},
      {13, LR"({"launched":true})", {L"command 13 done by client"}},
      {17,
       L"{}",
       {L"command 17 refused:no_session_api by client status 536870922"},
       [this] { machine.system.RemoveApiSet(Platform::kSessionApiSet); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.id << " " << testing::PrintToString(c.request));
    c.before();
    log.Clear();
    host.Execute(c.id, c.request.c_str());
    EXPECT_EQ(log.Records(), c.records);
  }
}

}  // namespace
}  // namespace Vx::Tests
