#include <cstdint>
#include <functional>
#include <memory>

#include <gmock/gmock.h>

#include "host/uwp_package_model.h"
#include "support/machine_test.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using ::testing::Contains;
using ::testing::Not;
using ::testing::StartsWith;

constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
constexpr wchar_t kFullName[] = L"Some.App_1.1.2.3_x64__0123456789abc";
constexpr auto kDenied = static_cast<std::int32_t>(0x80070005);

struct Destroyer {
  void operator()(UwpPackageModel* model) const { model->Destroy(1); }
};

// The host calls while it acts as its client bob. Ann is at the console and has the package.
class CallerIdentityTest : public Tests::MachineTest {
 protected:
  CallerIdentityTest() {
    machine.users.Add(L"bob");
    machine.packages.Install({kFamily, kFullName, {}}, L"ann");
    ActAsBob();
  }

  void ActAsBob() { machine.users.Impersonate(machine.users.TokenOf(L"bob")->get()); }
  std::wstring Acting() const {
    const auto user = machine.users.Acting();
    return user ? user->name : L"the service";
  }

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
      [this] { return model->ShouldForceRegistration(L"PC\\ann", kFullName, &number); },
      [this] { return model->Register(kFullName); },
      [this] { return model->GetOriginAndVersion(kFamily, &number, &version); },
  };
};

TEST_F(CallerIdentityTest, IsPutAsideAndRestored) {
  for (const auto& operation : operations) {
    EXPECT_EQ(operation(), 0);
    EXPECT_EQ(Acting(), L"bob");
  }
  EXPECT_EQ(length, std::size(kFullName)) << "the package of ann";
  EXPECT_LT(model->Register(L"Unknown_1.0.0.0_x64__p"), 0);
  EXPECT_EQ(Acting(), L"bob") << "also after a failure";
}

TEST_F(CallerIdentityTest, ThatCannotBePutAsideOrRestoredFailsTheOperation) {
  for (const auto& operation : operations) {
    machine.faults.FailNamed("Sessions.ThreadToken");
    EXPECT_EQ(operation(), kDenied);
    EXPECT_EQ(Acting(), L"bob");
    EXPECT_THAT(machine.faults.Calls(), Not(Contains(StartsWith("Packages."))));

    machine.faults.FailNamed("Sessions.Resume");
    EXPECT_EQ(operation(), kDenied);
    EXPECT_STREQ(model->LastError(), L"SetThreadToken failed with 0x5");
    EXPECT_EQ(Acting(), L"the service");
    ActAsBob();
  }
  machine.packages.SetRegistration({kDenied + 1, L"broken"}, {});
  EXPECT_EQ(model->Register(kFullName), kDenied) << "that matters more than a deployment";
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
