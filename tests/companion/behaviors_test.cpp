

#include "companion/qubo_behaviors.h"
#include "companion/registration.h"
#include "companion/text_files.h"
#include "platform/thread.h"
#include "storage/cap_data_store.h"
#include "support/faulty_files.h"
#include "support/machine_test.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using State = RegistrationHelper::RegistrationState;

constexpr wchar_t kSentra[] = L"7C3B9E40.SentraAssistant_r4x2m8kq7tn3b";
constexpr wchar_t kSentraKey[] = L"SOFTWARE\\WOW6432Node\\Vexmoor\\SentraActive";

class BehaviorTest : public Tests::StoreTest {
 protected:
  Tests::TempFolder programs;
  Tests::EnvironmentOverride programFiles{L"ProgramFiles", programs.Path().wstring()};
};

TEST_F(BehaviorTest, SentraIsInstalledByItsValueOrItsPackage) {
  const Qubo::SentraSoftwareCheckBehavior sentra;
  EXPECT_FALSE(sentra.IsInstalled());
  machine.registry.SetText(kSentraKey, L"Another", L"");
  EXPECT_FALSE(sentra.IsInstalled());

  machine.packages.Install({kSentra, L"Sentra_1", {}}, L"ann");
  EXPECT_TRUE(sentra.IsInstalled());
  machine.users.DetachConsole();
  EXPECT_FALSE(sentra.IsInstalled());

  machine.registry.SetText(kSentraKey, L"Version", L"");
  machine.faults.Clear();
  EXPECT_TRUE(sentra.IsInstalled());
  EXPECT_THAT(machine.faults.Calls(),
              ElementsAre("Registry.Exists"));  // the registry value is enough
}

TEST_F(BehaviorTest, FoldersTellPreloadedAndInstalled) {
  const Qubo::SentraSoftwareCheckBehavior sentra;
  const Qubo::McAfeeSoftwareCheckBehavior mcafee;
  const std::pair<const char*, std::function<bool()>> answers[] = {
      {"Vx/SentraPre", [&] { return sentra.IsPreloaded(); }},
      {"Vx/McAfeePre", [&] { return mcafee.IsPreloaded(); }},
      {"Common Files/McAfee", [&] { return mcafee.IsInstalled(); }},
  };
  for (const auto& [folder, answer] : answers) {
    const auto path = programs.Path() / folder;
    std::filesystem::create_directories(path.parent_path());
    Tests::WriteText(path, "a file is no folder");
    EXPECT_FALSE(answer()) << folder;
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_TRUE(answer()) << folder;
  }
  EXPECT_THROW(mcafee.IsUwpInstalled(), std::logic_error);
  const Tests::EnvironmentOverride tooLong(L"ProgramFiles", L"C:\\" + std::wstring(260, L'x'));
  EXPECT_FALSE(sentra.IsPreloaded());
}

TEST_F(BehaviorTest, KnowsNoRegistrationStateOfAnotherKindOrWithoutAStore) {
  const Qubo::QuboRegistrationCheckBehavior check(std::make_unique<RegistrationHelper>());
  Storage::CapDataStore().persist("registration_full_sent", "skipped_oobe");
  EXPECT_EQ(check.GetState(), State::SkippedOobe);
  Storage::CapDataStore().persist("registration_full_sent", true);
  EXPECT_EQ(check.GetState(), State::Unknown);
  store.Block();
  EXPECT_EQ(check.GetState(), State::Unknown);
}

class RegistrationDataTest : public BehaviorTest {
 protected:
  RegistrationDataTest() {
    machine.users.SetProfile(L"ann", user.Path().wstring());
    std::filesystem::create_directories(Source().parent_path());
    std::filesystem::create_directories(Destination().parent_path());
  }

  std::filesystem::path Source() const {
    return everyones.Path() / "Vx" / "Registration" / "registration_subset.xml";
  }
  std::filesystem::path Destination() const {
    return user.Path() / "AppData" / "Roaming" / "Vx" / "Vx Setup" / "REGDATA" /
           "RegistrationSubset.xml";
  }

  Tests::TempFolder everyones;
  Tests::TempFolder user;
  Tests::EnvironmentOverride programData{L"ProgramData", everyones.Path().wstring()};
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
};

TEST_F(RegistrationDataTest, CopiesTheMachinesDataOverTheUsersWithTheUsersRightsAlone) {
  Tests::FaultyFiles files;
  int accesses = 0;
  files.onStep = [&](const char*) {
    ++accesses;
    EXPECT_TRUE(machine.users.Acting());
    return 0U;
  };
  const Platform::MachineScope inserted(
      [&](Platform::Machine& platform) { platform.files = &files; });
  const std::string content("\xFF\xFE<\0x\0\r\n\0\x1A", 9);
  Tests::WriteText(Source(), content);
  Tests::WriteText(Destination(), "older and longer than what comes");
  EXPECT_TRUE(CopyRegistrationData(L"client", logger));
  EXPECT_EQ(Tests::ReadText(Destination()), content);
  Tests::WriteText(Source(), "second");
  RefreshRegistrationData(logger);
  machine.clock.Settle();
  EXPECT_EQ(Tests::ReadText(Destination()), "second");
  EXPECT_EQ(accesses, 8);
  EXPECT_FALSE(machine.users.Acting());

  const std::pair<const char*, std::size_t> refused[] = {{"Environment.ExpandForUser", 0},
                                                         {"Environment.ExpandForUser", 1},
                                                         {"Sessions.Impersonate", 2}};
  for (const auto& [call, succeeding] : refused) {
    machine.faults.FailNamed(call, succeeding);
    EXPECT_FALSE(CopyRegistrationData(L"client", logger));
  }
  EXPECT_EQ(accesses, 8);
}

// The user changes during the second of the copy's three steps, or between it and the third.
TEST_F(RegistrationDataTest, CopiesNothingWithTheRightsOfAnotherUser) {
  Tests::WriteText(Source(), "new");
  Tests::WriteText(Destination(), "old");
  const std::function<void()> copies[] = {
      [&] { EXPECT_FALSE(CopyRegistrationData(L"client", logger)); },
      [&] { RefreshRegistrationData(logger); }};
  for (const auto& [line, time] : {std::pair(L"Attempting to impersonate", 2),
                                   std::pair(L"Problem while reverting the impersonation.", 1)}) {
    for (const auto& copy : copies) {
      machine.users.LogOn(L"ann");
      machine.faults.FailNamed("Sessions.Revert", 1);
      const Tests::LogTrap change(line, time, [&] { machine.users.LogOn(L"bob"); });
      copy();
      machine.clock.Settle();
      EXPECT_EQ(log.Lines().back(), L"warning|Problem while querying user's access token.");
    }
  }
  EXPECT_EQ(Tests::ReadText(Destination()), "old");
}

// Blocks each file change, as a user's program can, until CancelIo runs while `cancels` is true.
class HeldUpFiles final : public Platform::Threads {
 public:
  HeldUpFiles() {
    files.onStep = [this](const char* step) {
      if (!holds || std::string_view(step) == "Read") return 0U;
      if (const auto act = std::exchange(onHold, nullptr)) act();
      clock.Wait(freed.get(), std::nullopt);
      return Tests::kFault;
    };
  }

  Platform::Result<Platform::UniqueHandle> Start(std::function<void()> body) override {
    return Platform::WindowsMachine().threads->Start(std::move(body));
  }
  void CancelIo(Platform::RawHandle) override {
    if (cancels) SetEvent(freed.get());
  }
  std::function<void()> onHold;

  std::atomic<bool> holds = true;
  bool cancels = true;

 private:
  struct Files final : Tests::FaultyFiles {
    Platform::ErrorCode Remove(const std::wstring& path) override {
      onStep("Remove");
      return FaultyFiles::Remove(path);
    }
  };

  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  Platform::UniqueHandle freed{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  Files files;
  const Platform::MachineScope inserted{[this](Platform::Machine& platform) {
    platform.files = &files;
    platform.threads = this;
  }};
};

TEST_F(RegistrationDataTest, AUserWhoHoldsUpTheCopyHoldsUpNeitherAResumeNorACommandForLong) {
  HeldUpFiles held;
  const auto secondsOfCopy = [&](bool expected) {
    const auto begin = machine.clock.Elapsed();
    EXPECT_EQ(CopyRegistrationData(L"client", logger), expected);
    return machine.clock.Elapsed() - begin;
  };
  Tests::WriteText(Source(), "new");
  // Removing the partial file can be held up too.
  EXPECT_EQ(secondsOfCopy(false), 30'100ms);
  EXPECT_EQ(machine.clock.Workers(), 0U);
  EXPECT_EQ(log.Lines().back(),
            L"warning|CopyRegistration - cancelled, because another program "
            L"holds up " +
                Source().wstring() + L" or " + Destination().wstring());

  held.cancels = false;
  held.holds = true;
  const auto begin = machine.clock.Elapsed();
  RefreshRegistrationData(logger);
  EXPECT_EQ(machine.clock.Elapsed(), begin);
  machine.clock.Advance(31s);
  EXPECT_EQ(secondsOfCopy(false), 0s);
  EXPECT_EQ(log.Lines().back(),
            L"warning|CopyRegistration - not begun, because an earlier copy hangs");
  // The next two commands cancel the hung copy's write and then its removal of the partial file.
  held.cancels = true;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(secondsOfCopy(false), 0s);
    machine.clock.Settle();
  }
  held.holds = false;
  EXPECT_EQ(secondsOfCopy(true), 0s);
  EXPECT_EQ(Tests::ReadText(Destination()), "new");
}

TEST_F(RegistrationDataTest, ACommandThatWaitsForACopyThatIsHeldUpDoesNotBeginItsOwn) {
  HeldUpFiles held;
  Tests::WriteText(Source(), "new");
  std::thread second;
  std::promise<void> asked;
  const Tests::LogTrap trap(L"Attempting to impersonate", 3, [&] { asked.set_value(); });
  held.onHold = [&] {
    second = std::thread([&] { EXPECT_FALSE(CopyRegistrationData(L"second", logger)); });
    asked.get_future().wait();
  };
  EXPECT_FALSE(CopyRegistrationData(L"first", logger));
  second.join();
  EXPECT_THAT(
      log.Lines(),
      testing::Contains(L"warning|CopyRegistration - not begun, because an earlier copy hangs"));
}

class TextFileTest : public ::testing::Test {
 protected:
  bool Copy(const wchar_t* from, const wchar_t* to) const {
    return CopyFileContent(folder / from, folder / to, L"Win10SSwitch", logger);
  }

  Tests::TempFolder folder;
  Tests::LogCapture log;
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
};

TEST_F(TextFileTest, AFileWithoutAMarkIsReadAsUtf8AndAnUnreadableOneHasNoText) {
  static constexpr wchar_t kNoMark[] = L"warning|Error Finding BOM for file: ";
  static constexpr wchar_t kUnreadable[] = L"warning|Error while reading text file ";
  using namespace std::string_literals;
  const std::string largest(kMaxTextFile, 'x');
  std::filesystem::create_directory(folder.Path() / "a folder");
  const struct {
    const wchar_t* name;
    std::optional<std::string> content;  // empty for a missing file
    std::optional<std::wstring> text;
    std::vector<std::wstring> lines;
  } cases[] = {
      {L"marked", "\xEF\xBB\xBF/quiet", L"/quiet", {}},
      {L"plain", "/caf\xC3\xA9", L"/caf\u00E9", {kNoMark}},
      {L"high byte first", "\xFE\xFF\0/\0\xE4"s, L"/\u00E4", {}},
      {L"broken", "\xEF\xBB\xBF/\xC3", L"/\uFFFD", {}},
      {L"largest", largest, std::wstring(kMaxTextFile, L'x'), {kNoMark}},
      {L"empty", "", L"", {kNoMark}},
      {L"missing", std::nullopt, std::nullopt, {kUnreadable}},
      {L"a folder", std::nullopt, std::nullopt, {kUnreadable}},
      {L"too large", "\xEF\xBB\xBF" + largest.substr(2), std::nullopt, {kUnreadable}},
      {L"UTF-16", "/\0q\0"s, std::nullopt, {kNoMark, kUnreadable}},
      {L"cut", "\xFF\xFE/\0\0\0q\0"s, std::nullopt, {kUnreadable}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(std::wstring(c.name)));
    log.Clear();
    if (c.content) Tests::WriteText(folder / c.name, *c.content);
    EXPECT_TRUE(ReadTextFile(folder / c.name, L"Win10SSwitch", logger) == c.text);
    auto lines = c.lines;
    for (std::wstring& line : lines) line += folder / c.name;
    EXPECT_EQ(log.Lines(), lines);
    EXPECT_THAT(log.Callers(), ::testing::Each(L"Win10SSwitch"));
  }
}

TEST_F(TextFileTest, ADestinationThatCannotBeWrittenKeepsItsContentAndNoPartIsLeft) {
  Tests::WriteText(folder / L"source", "new");
  Tests::WriteText(folder / L"read only", "old");
  SetFileAttributesW((folder / L"read only").c_str(), FILE_ATTRIBUTE_READONLY);
  Tests::WriteText(folder / L"target", "old");
  std::filesystem::create_directory(folder.Path() / "a folder");
  for (const wchar_t* to : {L"read only", L"a folder", L"missing\\file"}) {
    SCOPED_TRACE(::testing::PrintToString(std::wstring(to)));
    EXPECT_FALSE(Copy(L"source", to));
    EXPECT_EQ(log.Lines().back(), L"error|Error while copying destination file " + folder / to);
  }
  EXPECT_FALSE(Copy(L"nothing", L"target"));
  EXPECT_EQ(log.Lines().back(), L"error|Error while copying source file " + folder / L"nothing");
  {
    Tests::FaultyFiles files;
    const Platform::MachineScope scope(
        [&](Platform::Machine& platform) { platform.files = &files; });
    files.onStep = [](const std::string& step) { return step == "Half" ? Tests::kFault : 0U; };
    EXPECT_FALSE(Copy(L"source", L"target"));
  }
  EXPECT_EQ(Tests::ReadText(folder / L"read only"), "old");
  EXPECT_EQ(Tests::ReadText(folder / L"target"), "old");
  const std::filesystem::directory_iterator entries(folder.Path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 4);

  Tests::WriteText(folder / L"source", "");
  EXPECT_TRUE(Copy(L"source", L"target"));
  EXPECT_EQ(Tests::ReadText(folder / L"target"), "");
}

TEST_F(TextFileTest, ADestinationThatAnotherProcessKeepsFromDeletionIsWrittenInPlace) {
  Tests::WriteText(folder / L"source", "new");
  Tests::WriteText(folder / L"target", "the old content");
  const Platform::UniqueHandle reader = Platform::AdoptFile(
      CreateFileW((folder / L"target").c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                  nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(Copy(L"source", L"target"));
  EXPECT_EQ(Tests::ReadText(folder / L"target"), "new");
  EXPECT_FALSE(exists(folder.Path() / "target.part"));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
