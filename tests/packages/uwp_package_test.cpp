#include "packages/uwp_package.h"

#include "host/uwp_package_model.h"
#include "support/machine_test.h"
#include "support/memory_shortage.h"
#include "support/test.h"

extern "C" Vx::Tessel::Server::Services::UwpPackageModel* CreateUwpPackageModel() noexcept;

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
constexpr wchar_t kFullName[] = L"Some.App_1.1.2.3_x64__0123456789abc";
constexpr std::uint64_t kVersion = 0x0001'0001'0002'0003;
constexpr wchar_t kUser[] = L"PC\\ann";

constexpr std::int32_t Hresult(std::uint32_t code) {
  return static_cast<std::int32_t>(code);
}

class UwpPackageTest : public Tests::MachineTest {
 protected:
  void TearDown() override { EXPECT_FALSE(machine.users.Acting()); }

  void Fail(const char* call) { machine.faults.FailNamed(call); }
  void Stage() { machine.packages.Stage({kFamily, kFullName, {}}); }
  void Install() { machine.packages.Install({kFamily, kFullName, {}}, L"ann"); }

  static void Find() { UwpPackage().FindPackageFullName(kFamily); }
  static void Enroll() { UwpPackage().Register(kFullName); }
  static void Read() { UwpPackageDataAccess().GetOriginAndVersion(kFamily); }
};

TEST_F(UwpPackageTest, FindsThePackageOfTheConsoleUserAlone) {
  machine.users.Add(L"bob");
  machine.packages.Install({kFamily, kFullName, {}}, L"bob");
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), L"");
  Install();
  Fail("Sessions.Revert");
  EXPECT_EQ(UwpPackage().FindPackageFullName(kFamily), kFullName);
  EXPECT_THAT(
      log.Lines(),
      Contains(L"warning|Problem while reverting the impersonation of a package operation."));
}

TEST_F(UwpPackageTest, DoesNothingWithoutTheConsoleUser) {
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"WTSQueryUserToken failed with 0x5", [&] { Fail("Sessions.QueryUserToken"); }},
      {"ImpersonateLoggedOnUser failed with 0x5", [&] { Fail("Sessions.Impersonate"); }},
      {"WTSQueryUserToken failed with 0x78",
       [&] { machine.system.RemoveApiSet(Platform::kSessionApiSet); }},
      {"WTSQueryUserToken failed with 0x3f0", [&] { machine.users.DetachConsole(); }},
  };
  for (const auto& [failure, breakIt] : cases) {
    for (void (*operation)() : {&Find, &Enroll, &Read}) {
      machine.faults.Clear();
      breakIt();
      EXPECT_THAT(operation, ThrowsMessage<std::exception>(failure));
      EXPECT_THAT(machine.faults.Calls(), Not(Contains(StartsWith("Packages."))));
    }
  }
}

TEST_F(UwpPackageTest, ForcesTheRegistrationOfWhatIsStagedButNotRegistered) {
  static constexpr struct {
    const wchar_t* staged;  // each query is for version 1 of the app with this letter
    const wchar_t* registered;
    bool force;
  } kCases[] = {
      {L"A_1.0.0.0_x64__p", L"", true},
      {L"B_1.0.0.0_x64__p", L"b_1.0.0.0_X64__p", false},
      {L"C_1.0.0.0_x64__p", L"C_2.0.0.0_x64__p", true},
      {L"D_2.0.0.0_x64__p", L"", false},
      {L"E_1.0.0.0_x64__pq", L"", false},
  };
  for (const auto& c : kCases) {
    const std::wstring letter(1, c.staged[0]);
    SCOPED_TRACE(testing::PrintToString(letter));
    machine.packages.Stage({letter + L"_p", c.staged, {}});
    if (c.registered[0] != 0) machine.packages.Install({letter + L"_p", c.registered, {}}, L"ann");
    machine.faults.Clear();
    EXPECT_EQ(UwpPackage().ShouldForceRegistration(kUser, letter + L"_1.0.0.0_x64__p"), c.force);
    // Only the service itself may query another user's packages.
    EXPECT_THAT(machine.faults.Calls(), Not(Contains("Sessions.Impersonate")));
  }
}

TEST_F(UwpPackageTest, NamesTheCallThatFailed) {
  const auto ask = [] { UwpPackage().ShouldForceRegistration(kUser, kFullName); };
  const struct {
    void (*operation)();
    const char* call;
    const char* failure;
  } cases[] = {
      {&Find, "Packages.FindByFamily", "FindPackagesByPackageFamily failed with 0x5"},
      {&Find, "Packages.FamilyNames", "FindPackagesByPackageFamily failed with 0x5"},
      {ask, "Packages.AccountSid", "LookupAccountName failed with 0x5"},
      {ask, "Packages.FindForAllUsers", "refused failed with 0x80070005"},
      {&Enroll, "Packages.Register", "refused failed with 0x80070005"},
      {&Read, "Packages.StagedOrigin", "GetStagedPackageOrigin failed with 0x5"},
      {&Read, "Packages.Version", "PackageIdFromFullName failed with 0x5"},
  };
  EXPECT_THAT(&Read,
              ThrowsMessage<std::exception>("FindPackagesByPackageFamily failed with 0x490"));
  Install();
  for (const auto& c : cases) {
    Fail(c.call);
    EXPECT_THAT(c.operation, ThrowsMessage<std::exception>(c.failure)) << c.call;
    EXPECT_FALSE(machine.users.Acting());
  }
}

TEST_F(UwpPackageTest, RefusesATextThatIsNoFullName) {
  for (const wchar_t* text : {L"", L"Some.App", kFamily, L"a_b_c_d_e_f"}) {
    EXPECT_THROW(UwpPackage().ShouldForceRegistration(kUser, text), std::invalid_argument);
  }
}

struct Destroyer {
  void operator()(UwpPackageModel* model) const { EXPECT_EQ(model->Destroy(1), model); }
};

class UwpPackageModelTest : public UwpPackageTest {
 protected:
  std::unique_ptr<UwpPackageModel, Destroyer> model{CreateUwpPackageModel()};
  std::uint32_t length = 0;
  std::int32_t number = 0;
  std::uint64_t version = 0;
  const std::function<std::int32_t()> operations[4] = {
      [this] {
        wchar_t name[64] = {};
        length = 64;
        return model->FindPackageFullName(kFamily, name, &length);
      },
      [this] { return model->ShouldForceRegistration(kUser, kFullName, &number); },
      [this] { return model->Register(kFullName); },
      [this] { return model->GetOriginAndVersion(kFamily, &number, &version); },
  };
};

TEST_F(UwpPackageModelTest, WritesTheNameIntoABufferThatIsLargeEnough) {
  Install();
  constexpr auto needed = static_cast<std::uint32_t>(std::size(kFullName));
  EXPECT_EQ(model->FindPackageFullName(kFamily, nullptr, &length), Hresult(0x8007007A));
  EXPECT_EQ(length, needed);

  std::wstring buffer(needed + 1, L'#');
  length = needed - 1;
  EXPECT_EQ(model->FindPackageFullName(kFamily, buffer.data(), &length), Hresult(0x8007007A));
  EXPECT_EQ(buffer, std::wstring(needed + 1, L'#')) << "written past the given length";

  EXPECT_EQ(model->FindPackageFullName(kFamily, buffer.data(), &length), 0);
  EXPECT_STREQ(buffer.c_str(), kFullName);
  EXPECT_EQ(buffer.back(), L'#');
  EXPECT_STREQ(model->LastError(), L"");

  EXPECT_EQ(model->FindPackageFullName(L"Other_p", buffer.data(), &length), 0);
  EXPECT_STREQ(buffer.c_str(), L"");
  EXPECT_EQ(length, 1U);
}

TEST_F(UwpPackageModelTest, AnswersRegistrationOriginAndVersion) {
  Stage();
  std::int32_t force = 7;
  EXPECT_EQ(model->ShouldForceRegistration(kUser, kFullName, &force), 0);
  EXPECT_EQ(force, 1);
  // Registers through slot 3 of the object's table, as a host built by another compiler does.
  using RegisterSlot = std::int32_t (*)(void* self, const wchar_t* fullName);
  void* const object = model.get();
  EXPECT_EQ(reinterpret_cast<RegisterSlot>((*static_cast<void***>(object))[3])(object, kFullName),
            0);
  EXPECT_EQ(model->ShouldForceRegistration(kUser, kFullName, &force), 0);
  EXPECT_EQ(force, 0);

  std::int32_t origin = 0;
  EXPECT_EQ(model->GetOriginAndVersion(kFamily, &origin, &version), 0);
  EXPECT_EQ(origin, 3);
  EXPECT_EQ(version, kVersion);
}

TEST_F(UwpPackageModelTest, TurnsEachFailureIntoACodeAndAText) {
  Stage();
  machine.packages.SetRegistration({Hresult(0x80073CF6), L"Caf\u00e9 is broken."}, {});
  EXPECT_EQ(model->Register(kFullName), Hresult(0x80073CF6));
  EXPECT_STREQ(model->LastError(),
               L"RegisterPackageByFullNameAsync failed with 0x80073cf6: Caf\u00e9 is broken.");
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|class Vx::Tessel::Server::Services::UwpPackageModel.Register "
                          L"threw exception RegisterPackageByFullNameAsync failed with "
                          L"0x80073cf6: Caf\u00e9 is broken."));
  machine.packages.SetRegistration({}, {});
  EXPECT_EQ(model->Register(kFullName), 0);
  EXPECT_STREQ(model->LastError(), L"") << "an old failure is still reported";

  std::int32_t force = 7;
  EXPECT_EQ(model->ShouldForceRegistration(kUser, L"no full name", &force), Hresult(0x80070057));
  EXPECT_EQ(force, 0);
  machine.users.DetachConsole();
  EXPECT_EQ(model->Register(kFullName), Hresult(0x800703F0)) << "a Win32 error as an HRESULT";
}

TEST_F(UwpPackageModelTest, ReportsThatMemoryRanOutOrSucceeds) {
  Install();
  std::int32_t result = 0;
  const auto expectReported = [&](const std::function<std::int32_t()>& operation) {
    const std::int32_t usual = operation();
    for (const auto kind : {Tests::Shortage::Once, Tests::Shortage::Lasting}) {
      Tests::FailEachAllocation(
          kind, [&] { result = operation(); },
          [&] {
            EXPECT_THAT(result, ::testing::AnyOf(usual, Hresult(0x8007000E)));
            EXPECT_FALSE(machine.users.Acting());
          });
    }
  };
  for (const auto& operation : operations) expectReported(operation);
  expectReported([&] { return model->Register(L"Unknown_1.0.0.0_x64__p"); });
}

TEST_F(UwpPackageModelTest, RefusesNullArgumentsWithoutAskingTheMachine) {
  const std::int32_t answers[] = {
      model->FindPackageFullName(nullptr, nullptr, nullptr),
      model->FindPackageFullName(kFamily, nullptr, nullptr),
      model->ShouldForceRegistration(nullptr, kFullName, &number),
      model->ShouldForceRegistration(kUser, nullptr, &number),
      model->ShouldForceRegistration(kUser, kFullName, nullptr),
      model->Register(nullptr),
      model->GetOriginAndVersion(nullptr, &number, &version),
      model->GetOriginAndVersion(kFamily, nullptr, &version),
      model->GetOriginAndVersion(kFamily, &number, nullptr),
  };
  EXPECT_THAT(answers, ::testing::Each(Hresult(0x80004003)));
  EXPECT_THAT(machine.faults.Calls(), IsEmpty());
}

// The host calls the module while impersonating its client bob. Ann is at the console and has the
// package.
class CallerIdentityTest : public UwpPackageModelTest {
 protected:
  CallerIdentityTest() {
    machine.users.Add(L"bob");
    Install();
    ActAsBob();
  }
  void TearDown() override {}  // the caller is still impersonating

  void ActAsBob() { machine.users.Impersonate(machine.users.TokenOf(L"bob")->get()); }
  std::wstring Acting() const {
    const auto user = machine.users.Acting();
    return user ? user->name : L"the service";
  }
};

TEST_F(CallerIdentityTest, IsPutAsideAndRestored) {
  for (const auto& operation : operations) {
    EXPECT_EQ(operation(), 0);
    EXPECT_EQ(Acting(), L"bob");
  }
  EXPECT_EQ(length, std::size(kFullName)) << "ann's package";
  EXPECT_LT(model->Register(L"Unknown_1.0.0.0_x64__p"), 0);
  EXPECT_EQ(Acting(), L"bob") << "even after a failure";
}

TEST_F(CallerIdentityTest, ThatCannotBePutAsideOrRestoredFailsTheOperation) {
  for (const auto& operation : operations) {
    machine.faults.FailNamed("Sessions.ThreadToken");
    EXPECT_EQ(operation(), Hresult(0x80070005));
    EXPECT_EQ(Acting(), L"bob");
    EXPECT_THAT(machine.faults.Calls(), Not(Contains(StartsWith("Packages."))));

    machine.faults.FailNamed("Sessions.Resume");
    EXPECT_EQ(operation(), Hresult(0x80070005));
    EXPECT_STREQ(model->LastError(), L"SetThreadToken failed with 0x5");
    EXPECT_EQ(Acting(), L"the service");
    ActAsBob();
  }
  machine.packages.SetRegistration({Hresult(0x80070006), L"broken"}, {});
  EXPECT_EQ(model->Register(kFullName), Hresult(0x80070005))
      << "outweighs the deployment's failure";
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
