#include "events/event_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <windows.h>

#include "events/fake_app_services.h"
#include "events/package_event_request.h"
#include "platform/hresult_error.h"
#include "platform/machine.h"
#include "platform/processes.h"
#include "platform/sessions.h"
#include "platform/trust_provider.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/stand_in_logon.h"
#include "support/temp_folder.h"
#include "support/test_pki.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Json::JsonObject;
using Platform::Machine;
using Platform::MachineScope;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;
using Tests::LogCapture;

constexpr winrt::hresult kBuilt = 0;

// kBuilt, or the code that building the command throws.
winrt::hresult Building(std::uint32_t action, const std::wstring& parameters) {
  try {
    const auto command =
        CreateEventCommand(static_cast<EventAction>(action), JsonObject::Parse(parameters));
    return command != nullptr ? kBuilt : -1;
  } catch (const winrt::hresult_error& error) {
    return error.code();
  }
}

std::wstring Escaped(const std::wstring& path) {
  std::wstring text;
  for (const wchar_t c : path) text.append(c == L'\\' ? 2 : 1, c);
  return text;
}

TEST(CreateEventCommand, InsistsOnItsRequiredKeys) {
  static constexpr struct {
    const wchar_t* parameters;
    std::uint32_t action;
    winrt::hresult result;
  } kCases[] = {
      {LR"({"path":"C:\\a.exe"})", 1, kBuilt},
      {LR"({})", 1, Json::kJsonValueNotFound},
      {LR"({"path":5})", 1, Json::kIllegalMethodCall},
      {LR"({"path":null})", 1, Json::kIllegalMethodCall},
      {LR"({"path":"C:\\a.exe","arguments":5})", 1, kBuilt},
      {LR"({"path":"C:\\a.exe","delayDeliverySec":5})", 1, Json::kIllegalMethodCall},
      {LR"({"packageFamilyName":"f","appServiceName":"s","payload":{}})", 2, kBuilt},
      {LR"({"appServiceName":"s","payload":{}})", 2, Json::kJsonValueNotFound},
      {LR"({"packageFamilyName":"f","payload":{}})", 2, Json::kJsonValueNotFound},
      {LR"({"packageFamilyName":"f","appServiceName":"s"})", 2, Json::kJsonValueNotFound},
      {LR"({"packageFamilyName":"f","appServiceName":"s","payload":"x"})", 2,
       Json::kIllegalMethodCall},
      {LR"({"packageFamilyName":"f","appServiceName":"s","payload":{},"delayDeliverySec":1})", 2,
       Json::kIllegalMethodCall},
      {LR"({"path":"C:\\a.exe"})", 0, kUnknownAction},
      {LR"({"path":"C:\\a.exe"})", 3, kUnknownAction},
      {LR"({"path":"C:\\a.exe"})", 0xFFFFFFFF, kUnknownAction},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.parameters)));
    EXPECT_EQ(Building(c.action, c.parameters), c.result);
  }
}

TEST(LaunchCommand, PutsDefaultsWhereTextIsMissing) {
  const LaunchCommand bare(JsonObject::Parse(LR"({"path":"p","arguments":5})"));
  EXPECT_EQ(bare.Path(), L"p");
  EXPECT_EQ(bare.Arguments(), L"");
  EXPECT_EQ(bare.DelayDeliverySec(), L"0");

  const LaunchCommand full(
      JsonObject::Parse(LR"({"path":"p","arguments":"a b","delayDeliverySec":"7"})"));
  EXPECT_EQ(full.Arguments(), L"a b");
  EXPECT_EQ(full.DelayDeliverySec(), L"7");
}

TEST(AppServiceNotificationCommand, LooksForTheTriggerInsideThePayloadOnly) {
  const auto trigger = [](const wchar_t* rest) {
    const std::wstring head = LR"({"packageFamilyName":"f","appServiceName":"s","payload":)";
    return AppServiceNotificationCommand(JsonObject::Parse(head + rest)).CustomTriggerGUID();
  };
  EXPECT_EQ(trigger(LR"({"customTriggerGUID":"{g}"}})"), L"{g}");
  EXPECT_EQ(trigger(LR"({},"customTriggerGUID":"{g}"})"), L"");
  EXPECT_EQ(trigger(LR"({"customTriggerGUID":5}})"), L"");
}

TEST(AppServiceNotificationCommand, SendsThePayloadEachTime) {
  Tests::FakeAppServices services;
  const MachineScope scope([&](Machine& machine) { machine.appServices = &services; });
  AppServiceNotificationCommand command(JsonObject::Parse(
      LR"({"packageFamilyName":"f","appServiceName":"s","payload":{"a": [1.5, "x"]}})"));
  command.Execute();
  command.Execute();
  EXPECT_THAT(services.Sent(), ElementsAre(LR"(f/s {"a":[1.5,"x"]})", LR"(f/s {"a":[1.5,"x"]})"));
}

// The order of the slots is a contract with code that knows the table alone.
TEST(EventCommand, ExecutesThroughItsFirstSlotAndAnswersThroughItsSecond) {
  LaunchCommand launch(JsonObject::Parse(LR"({"path":""})"));
  PackageEventCommand& command = launch;
  void*** object = reinterpret_cast<void***>(&command);
  const LogCapture log;
  reinterpret_cast<void (*)(void*)>((*object)[0])(object);
  EXPECT_THAT(log.Lines(), Contains(StartsWith(L"warning|LaunchCommand::Execute - ")));
  EXPECT_TRUE(reinterpret_cast<bool (*)(void*)>((*object)[1])(object));
}

TEST(ParseEventCommand, AnswersOnlyCommandsThatMayRunLate) {
  static constexpr struct {
    const wchar_t* request;
    bool parsed;
  } kCases[] = {
      {LR"({"catalogAction":1,"catalogActionParams":{"path":"p"}})", true},
      {LR"({"catalogAction":1.9,"catalogActionParams":{"path":"p"}})", true},
      {LR"({"catalogAction":0.9,"catalogActionParams":{"path":"p"}})", false},
      {LR"({"catalogAction":4294967297,"catalogActionParams":{"path":"p"}})", false},
      {LR"({"catalogAction":"1","catalogActionParams":{"path":"p"}})", false},
      {LR"({"catalogAction":1,"catalogActionParams":{}})", false},
      {LR"({"catalogAction":1})", false},
      {LR"({"catalogAction":2,"catalogActionParams":
           {"packageFamilyName":"f","appServiceName":"s","payload":{}}})",
       false},
      {L"{", false},
      {L"[]", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.request)));
    const auto command = SubscribeForAppPackageEventRequest::ParseEventCommand(c.request);
    EXPECT_EQ(command != nullptr && command->RunIfUninstalledWhileNotRunning(), c.parsed);
  }
}

// Launches of real programs: signed by the test authority, checked and started for real.
class RealLaunchTest : public testing::Test {
 protected:
  LaunchCommand Command(const std::wstring& path) const {
    return LaunchCommand(JsonObject::Parse(LR"({"path":")" + Escaped(path) +
                                           LR"(","arguments":"one \"two three\""})"));
  }

  static std::wstring LockLine(const std::wstring& path, const wchar_t* outcome) {
    return L"info|Vx::Tessel::Security::VxAuthenticodeHelper::AquireFileReadOnlyLock(" + path +
           L") : " + outcome;
  }
  static std::wstring RefusalLine(const std::wstring& path) {
    return L"warning|LaunchCommand::Execute - " + path + L" not trusted to launch as system";
  }

  Tests::TempFolder userFolder;
  Tests::ProtectedFolder folder;
  Tests::StandInLogon logon{userFolder.Path().wstring()};
  LogCapture log;
};

TEST_F(RealLaunchTest, StartsATrustedProgramAndReportsIt) {
  const std::wstring path = folder.Hold(L"pinned.exe");
  Command(path).Execute();

  const auto report = Tests::WaitForProbe(path + L".out");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->commandLine, L"\"" + path + L"\" one \"two three\"");
  EXPECT_EQ(report->workingDirectory, folder.Path());
  const auto lines = log.Lines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.front(), LockLine(path, L"succeeded"));
  EXPECT_EQ(lines[lines.size() - 2], L"info|LaunchedCommand::Execute attempting to launch \"" +
                                         path + L"\" with args \"one \"two three\"\"");
  EXPECT_THAT(lines.back(),
              StartsWith(L"info|LaunchCommand::Execute returned with result 1 and PID "));
}

TEST_F(RealLaunchTest, StartsNothingThatIsNotTrusted) {
  const auto misplaced = userFolder / L"pinned.exe";
  std::filesystem::copy_file(Tests::PkiFile(L"pinned.exe"), misplaced);
  const struct {
    std::wstring path;
    const wchar_t* lock;
  } cases[] = {
      {folder.Hold(L"general.exe"), L"succeeded"},  // its key is not in the restricted set
      {folder.Hold(L"unpinned.exe"), L"succeeded"}, {folder.Hold(L"unsigned.exe"), L"succeeded"},
      {folder.Hold(L"tampered.exe"), L"succeeded"}, {misplaced, L"succeeded"},
      {folder / L"missing.exe", L"FAILED"},         {L"pinned.exe", L"FAILED"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.path));
    log.Clear();
    Command(c.path).Execute();
    EXPECT_EQ(log.Lines().front(), LockLine(c.path, c.lock));
    EXPECT_EQ(log.Lines().back(), RefusalLine(c.path));
    EXPECT_FALSE(Tests::WaitForProbe(c.path + L".out", std::chrono::milliseconds(0)));
  }
}

bool CanBeWritten(const std::wstring& path) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  CloseHandle(file);
  return true;
}

// The real check and the real start, with a look at the file at each of them.
class Onlooker final : public Platform::TrustProvider, public Platform::Processes {
 public:
  explicit Onlooker(std::wstring watched) : path(std::move(watched)) {}

  Platform::SignatureVerdict VerifyEmbedded(const std::wstring& file,
                                            std::uint32_t index) const override {
    Look();
    return trust.VerifyEmbedded(file, index);
  }
  std::optional<Platform::CatalogHit> FindCatalog(
      const std::wstring& file, Platform::CatalogFailure& failure) const override {
    return trust.FindCatalog(file, failure);
  }
  Platform::SignatureVerdict VerifyInCatalog(const Platform::CatalogHit& catalog,
                                             std::uint32_t index) const override {
    return trust.VerifyInCatalog(catalog, index);
  }
  Platform::Result<std::wstring> FullPath(const std::wstring& file) const override {
    return trust.FullPath(file);
  }
  Platform::Result<std::wstring> FinalPath(const std::wstring& file) const override {
    return trust.FinalPath(file);
  }
  Platform::Result<std::vector<Platform::AccessEntry>> FolderAccess(
      const std::wstring& of) const override {
    return trust.FolderAccess(of);
  }

  Platform::Result<std::uint32_t> Start(Platform::RawHandle token,
                                        const Platform::ProcessStart& start) override {
    Look();
    return processes.Start(token, start);
  }
  std::vector<std::uint32_t> Ids(std::size_t limit) const override { return processes.Ids(limit); }
  std::optional<std::wstring> ImagePath(std::uint32_t id) const override {
    return processes.ImagePath(id);
  }
  std::optional<std::uint32_t> Session(std::uint32_t id) const override {
    return processes.Session(id);
  }
  Platform::Result<Platform::UniqueHandle> PrimaryToken(std::uint32_t id) const override {
    return processes.PrimaryToken(id);
  }

  mutable std::vector<bool> writable;

 private:
  void Look() const { writable.push_back(CanBeWritten(path)); }

  const std::wstring path;
  Platform::TrustProvider& trust = *Platform::WindowsMachine().trustProvider;
  Platform::Processes& processes = *Platform::WindowsMachine().processes;
};

TEST_F(RealLaunchTest, KeepsTheFileFromWritersWhileItIsCheckedAndStarted) {
  const std::wstring path = folder.Hold(L"pinned.exe");
  Onlooker onlooker(path);
  const MachineScope scope([&](Machine& machine) {
    machine.trustProvider = &onlooker;
    machine.processes = &onlooker;
  });
  Command(path).Execute();
  ASSERT_TRUE(Tests::WaitForProbe(path + L".out"));
  EXPECT_GE(onlooker.writable.size(), 2U);
  EXPECT_THAT(onlooker.writable, Not(Contains(true)));
}

TEST_F(RealLaunchTest, LetsGoOfAFileThatItRefused) {
  const std::wstring path = folder.Hold(L"unsigned.exe");
  Command(path).Execute();
  EXPECT_TRUE(CanBeWritten(path));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
