#include "events/event_commands.h"

#include "events/package_event.h"
#include "host/logging.h"
#include "simulator/virtual_clock.h"
#include "support/stand_in_logon.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Json::JsonObject;

// Some callers use only the vtable, so the order of its slots is part of the contract.
TEST(EventCommand, ExecutesThroughItsFirstSlotAndAnswersThroughItsSecond) {
  LaunchCommand launch(JsonObject::Parse(LR"({"path":""})"));
  PackageEventCommand& command = launch;
  void*** object = reinterpret_cast<void***>(&command);
  const Tests::LogCapture log;
  reinterpret_cast<void (*)(void*)>((*object)[0])(object);
  EXPECT_THAT(log.Lines(), Contains(StartsWith(L"warning|LaunchCommand::Execute - ")));
  EXPECT_TRUE(reinterpret_cast<bool (*)(void*)>((*object)[1])(object));
}

TEST(ParseEventCommand, AnswersOnlyCommandsThatMayRunLate) {
  static constexpr std::pair<bool, const wchar_t*> kCases[] = {
      {true, LR"({"catalogAction":1,"catalogActionParams":{"path":"p"}})"},
      {true, LR"({"catalogAction":1.9,"catalogActionParams":{"path":"p"}})"},
      {false, LR"({"catalogAction":0.9,"catalogActionParams":{"path":"p"}})"},
      {false, LR"({"catalogAction":4294967297,"catalogActionParams":{"path":"p"}})"},
      {false, LR"({"catalogAction":"1","catalogActionParams":{"path":"p"}})"},
      {false, LR"({"catalogAction":1,"catalogActionParams":{}})"},
      {false, LR"({"catalogAction":1})"},
      {false,
       LR"({"catalogAction":2,"catalogActionParams":
                  {"packageFamilyName":"f","appServiceName":"s","payload":{}}})"},
      {false, L"{"},
  };
  for (const auto& [parsed, request] : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(request)));
    const auto command = SubscribeForAppPackageEventRequest::ParseEventCommand(request);
    EXPECT_EQ(command != nullptr && command->RunIfUninstalledWhileNotRunning(), parsed);
  }
}

Platform::UniqueHandle OpenForWriting(const std::wstring& path) {
  return Platform::AdoptFile(CreateFileW(path.c_str(), GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         nullptr, OPEN_EXISTING, 0, nullptr));
}

bool CanBeWritten(const std::wstring& path) {
  return OpenForWriting(path) != nullptr;
}

class RealLaunchTest : public testing::Test {
 protected:
  LaunchCommand Command(const std::wstring& path) const {
    return LaunchCommand(JsonObject::Parse(LR"({"path":")" + Tests::Escaped(path) +
                                           LR"(","arguments":"one \"two three\""})"));
  }

  static std::wstring LockLine(const std::wstring& path, const wchar_t* outcome) {
    return L"info|Vx::Tessel::Security::VxAuthenticodeHelper::AquireFileReadOnlyLock(" + path +
           L") : " + outcome;
  }

  Tests::TempFolder userFolder;
  Tests::ProtectedFolder folder;
  Tests::StandInLogon logon{userFolder.Path().wstring()};
  Tests::LogCapture log;
};

TEST_F(RealLaunchTest, StartsATrustedProgramOnTheUsersDesktopAndReportsIt) {
  const Tests::EnvironmentOverride own(L"VX_PROBE", L"of the service");
  const std::wstring path = folder / L"a tool.exe";
  std::filesystem::copy_file(Tests::PkiFile(L"pinned.exe"), path);
  EXPECT_EQ(Command(path).Execute().decision, Records::Decision::Ran);

  const auto report = Tests::WaitForProbe(path + L".out");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->commandLine, L"\"" + path + L"\" one \"two three\"");
  EXPECT_EQ(report->workingDirectory, folder.Path());
  EXPECT_THAT(report->lines, Not(Contains(L"VX_PROBE=of the service")));
  EXPECT_THAT(report->lines, Contains(L"desktop=winsta0\\default"));
  const auto lines = log.Lines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.front(), LockLine(path, L"succeeded"));
  EXPECT_EQ(lines[lines.size() - 2], L"info|LaunchedCommand::Execute attempting to launch \"" +
                                         path + L"\" with args \"one \"two three\"\"");
  EXPECT_THAT(lines.back(),
              StartsWith(L"info|LaunchCommand::Execute returned with result 1 and PID "));
}

TEST_F(RealLaunchTest, StartsWhatItCheckedAhead) {
  const std::wstring path = folder.Hold(L"pinned.exe");
  LaunchCommand command = Command(path);
  std::mutex turn;
  const auto guard = TakeTurn(command, turn);
  EXPECT_FALSE(CanBeWritten(path));
  log.Clear();
  command.Execute();
  EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr(L"Lock("))));
  EXPECT_TRUE(Tests::WaitForProbe(path + L".out"));
}

// Each update holds `turn` until it has replaced the program or given up on a locked file.
TEST_F(RealLaunchTest, CanBeUpdatedWhileItWaitsForItsTurnAndIsThenCheckedAgain) {
  const struct {
    std::vector<const wchar_t*> updates;
    int inTurn;  // checks that read the file while `turn` is held
    std::size_t locks;
    int seconds;
    bool runs;
  } cases[] = {
      {{L"pinned.exe"}, 1, 2, 1, true},  // same size and timestamp
      {{L"expired.exe"}, 0, 3, 1, true},
      {{L"unsigned.exe"}, 0, 3, 1, false},
      {{L"expired.exe", L"pinned.exe", nullptr}, 0, 5, 2, true},
  };
  const std::wstring path = folder / L"pinned.exe";
  Simulator::VirtualClock clock;  // waits return at once
  const Platform::MachineScope scope([&](Platform::Machine& machine) { machine.clock = &clock; });
  const auto update = [&](const wchar_t* file, int polls) {
    for (; polls > 0; --polls) {
      if (CopyFileW(Tests::PkiFile(file).c_str(), path.c_str(), FALSE) != 0) return true;
      Sleep(10);
    }
    return false;
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.updates.size() << " x " << c.locks);
    ASSERT_TRUE(update(L"pinned.exe", 500));
    log.Clear();
    std::mutex turn;
    std::vector<std::jthread> others;
    int inTurn = 0;
    const Tests::LogSink sink([&](const Logging::LogRecord& record) {
      if (record.message.find(L"GetSecurityCatalogInfo - File") == std::wstring::npos) return;
      const bool free = Tests::IsFree(turn);
      if (!free) ++inTurn;
      if (!free || others.size() == c.updates.size()) return;
      std::promise<void> running;
      others.emplace_back([&, file = c.updates[others.size()]] {
        const std::lock_guard guard(turn);
        running.set_value();
        EXPECT_EQ(update(file != nullptr ? file : L"pinned.exe", file != nullptr ? 500 : 20),
                  file != nullptr);
      });
      running.get_future().wait();
    });
    LaunchCommand command = Command(path);
    const auto begin = clock.Elapsed();
    {
      const auto guard = TakeTurn(command, turn);
      command.Execute();
    }
    others.clear();
    EXPECT_EQ(clock.Elapsed() - begin, std::chrono::seconds(c.seconds));
    EXPECT_EQ(inTurn, c.inTurn);
    EXPECT_THAT(log.Lines(), Contains(LockLine(path, L"succeeded")).Times(c.locks));
    EXPECT_EQ(
        Tests::WaitForProbe(path + L".out", std::chrono::seconds(c.runs ? 20 : 0)).has_value(),
        c.runs);
    Tests::RemoveFile(path + L".out");
  }
}

// vxhost/explanation_test.cpp covers the other reasons for distrust.
TEST_F(RealLaunchTest, StartsNothingThatIsNotTrustedAndLetsItGo) {
  // The key of general.exe is not in the restricted set.
  for (const wchar_t* name : {L"general.exe", L"unsigned.exe"}) {
    const std::wstring path = folder.Hold(name);
    EXPECT_EQ(Command(path).Execute().decision, Records::Decision::Refused);
    EXPECT_EQ(log.Lines().back(),
              L"warning|LaunchCommand::Execute - " + path + L" not trusted to launch as system");
    EXPECT_TRUE(CanBeWritten(path));
    EXPECT_FALSE(Tests::WaitForProbe(path + L".out", 0ms));
  }
}

// An attacker with write access keeps the file open during the first lock attempt, closes it for
// the signature check, and then changes what the path refers to.
TEST_F(RealLaunchTest, StartsNothingThatChangedAfterALockThatFailed) {
  const Tests::ProtectedFolder forged;
  std::filesystem::copy_file(Tests::PkiFile(L"unsigned.exe"), forged / L"pinned.exe");
  const std::wstring program = folder / L"pinned.exe";
  const std::wstring alias = folder / L"alias.exe";
  const std::wstring link = folder / L"link";
  const std::wstring behindLink = link + L"\\pinned.exe";

  Platform::UniqueHandle open;
  std::optional<Tests::DirectoryLink> way;
  const auto hold = [&](const std::wstring& path) { open = OpenForWriting(path); };
  const auto overwrite = [&](const std::wstring& path) {
    if (CanBeWritten(path)) CopyFileW(Tests::PkiFile(L"unsigned.exe").c_str(), path.c_str(), FALSE);
  };
  const auto turn = [&](const std::wstring& target) {
    way.reset();
    way.emplace(link, target);
  };
  const auto nothing = [] {};
  const struct {
    const char* name;
    std::wstring path;
    std::function<void()> afterTheVerdict;
    std::function<void()> afterTheSecondLock;
    std::size_t locks;     // successful locks
    std::size_t verdicts;  // verdicts that trust the file
    bool starts;
  } cases[] = {
      {"overwritten", program, [&] { overwrite(program); }, nothing, 1, 1, false},
      {"overwritten under another name", program, [&] { overwrite(alias); }, nothing, 1, 1, false},
      {"overwritten under the lock", program, nothing, [&] { overwrite(alias); }, 1, 2, true},
      {"opened again", program, [&] { hold(alias); }, nothing, 0, 1, false},
      {"link redirected", behindLink, [&] { turn(forged.Path()); }, nothing, 1, 1, false},
      {"link redirected and restored", behindLink, [&] { turn(forged.Path()); },
       [&] { turn(folder.Path()); }, 1, 1, false},
      {"closed and left unchanged", program, nothing, nothing, 1, 2, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    folder.Hold(L"pinned.exe");
    ASSERT_NE(CreateHardLinkW(alias.c_str(), program.c_str(), nullptr), 0);
    turn(folder.Path());
    hold(program);
    log.Clear();
    {
      const Tests::LogTrap letGo(L" : FAILED", 1, [&] { open.reset(); });
      const Tests::LogTrap verdict(L"trusted by windows = yes", 1, c.afterTheVerdict);
      const Tests::LogTrap second(L" : succeeded", 1, c.afterTheSecondLock);
      Command(c.path).Execute();
    }
    open.reset();
    const auto lines = log.Lines();
    EXPECT_EQ(lines.front(), LockLine(c.path, L"FAILED"));
    EXPECT_THAT(lines, Contains(LockLine(c.path, L"succeeded")).Times(c.locks));
    EXPECT_THAT(lines, Contains(HasSubstr(L"trusted by windows = yes")).Times(c.verdicts));
    EXPECT_THAT(
        lines, Contains(StartsWith(L"warning|LaunchCommand::Execute - " + c.path + L" not trusted"))
                   .Times(c.starts ? 0 : 1));
    EXPECT_THAT(lines, Contains(HasSubstr(L"returned with result 1")).Times(c.starts ? 1 : 0));
    const auto limit = std::chrono::seconds(c.starts ? 20 : 0);
    EXPECT_EQ(Tests::WaitForProbe(c.path + L".out", limit).has_value(), c.starts);
    for (const auto& file : {c.path + L".out", program, alias}) Tests::RemoveFile(file);
  }
  way.reset();
}

// Every line that the command logs after locking the file is logged while the file is locked.
TEST_F(RealLaunchTest, KeepsTheFileFromWritersFromItsCheckToItsStart) {
  const std::wstring path = folder.Hold(L"pinned.exe");
  std::vector<bool> writable;
  {
    const Tests::LogSink sink(
        [&](const Logging::LogRecord&) { writable.push_back(CanBeWritten(path)); });
    Command(path).Execute();
  }
  ASSERT_TRUE(Tests::WaitForProbe(path + L".out"));
  EXPECT_GE(writable.size(), 4U);
  EXPECT_THAT(writable, Each(false));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
