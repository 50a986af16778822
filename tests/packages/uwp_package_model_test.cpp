#include "host/uwp_package_model.h"

#include <iterator>
#include <memory>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "packages/package_machine.h"
#include "support/log_capture.h"

extern "C" Vx::Tessel::Server::Services::UwpPackageModel* CreateUwpPackageModel() noexcept;

namespace Vx::Tessel::Server::Services {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Tests::kFamily;
using Tests::kFullName;
using Tests::PackageMachine;

constexpr std::int32_t Hresult(std::uint32_t code) {
  return static_cast<std::int32_t>(code);
}

struct Destroyer {
  void operator()(UwpPackageModel* model) const { EXPECT_EQ(model->Destroy(1), model); }
};

class UwpPackageModelTest : public ::testing::Test {
 protected:
  PackageMachine machine;
  std::unique_ptr<UwpPackageModel, Destroyer> model{CreateUwpPackageModel()};
};

TEST_F(UwpPackageModelTest, WritesTheNameIntoABufferThatIsLargeEnough) {
  machine.installed[kFamily] = kFullName;
  constexpr auto needed = static_cast<std::uint32_t>(std::size(kFullName));
  std::uint32_t length = 0;
  EXPECT_EQ(model->FindPackageFullName(kFamily, nullptr, &length), Hresult(0x8007007A));
  EXPECT_EQ(length, needed);

  std::wstring buffer(needed + 1, L'#');
  length = needed - 1;
  EXPECT_EQ(model->FindPackageFullName(kFamily, buffer.data(), &length), Hresult(0x8007007A));
  EXPECT_EQ(buffer, std::wstring(needed + 1, L'#')) << "written beyond what was offered";

  EXPECT_EQ(model->FindPackageFullName(kFamily, buffer.data(), &length), 0);
  EXPECT_STREQ(buffer.c_str(), kFullName);
  EXPECT_EQ(buffer.back(), L'#');
  EXPECT_STREQ(model->LastError(), L"");

  machine.installed.clear();
  EXPECT_EQ(model->FindPackageFullName(kFamily, buffer.data(), &length), 0);
  EXPECT_STREQ(buffer.c_str(), L"");
  EXPECT_EQ(length, 1U);
}

TEST_F(UwpPackageModelTest, AnswersRegistrationOriginAndVersion) {
  machine.installed[kFamily] = kFullName;
  machine.staged = {kFullName};
  machine.version = 0x0001'0000'0000'0000;
  std::int32_t force = 7;
  EXPECT_EQ(model->ShouldForceRegistration(L"PC\\ann", kFullName, &force), 0);
  EXPECT_EQ(force, 1);
  // As a host of another compiler registers: through slot 3 of the object's table.
  using RegisterSlot = std::int32_t (*)(void* self, const wchar_t* fullName);
  void* const object = model.get();
  EXPECT_EQ(reinterpret_cast<RegisterSlot>((*static_cast<void***>(object))[3])(object, kFullName),
            0);
  EXPECT_EQ(model->ShouldForceRegistration(L"PC\\ann", kFullName, &force), 0);
  EXPECT_EQ(force, 0);

  std::int32_t origin = 0;
  std::uint64_t version = 0;
  EXPECT_EQ(model->GetOriginAndVersion(kFamily, &origin, &version), 0);
  EXPECT_EQ(origin, 3);
  EXPECT_EQ(version, 0x0001'0000'0000'0000U);
}

TEST_F(UwpPackageModelTest, TurnsEachFailureIntoACodeAndAText) {
  const Tests::LogCapture log;
  machine.registration = {Hresult(0x80073CF6), L"The package is broken."};
  EXPECT_EQ(model->Register(kFullName), Hresult(0x80073CF6));
  EXPECT_STREQ(model->LastError(),
               L"RegisterPackageByFullNameAsync failed with 0x80073cf6: The package is broken.");
  EXPECT_THAT(log.Lines(),
              ElementsAre(L"error|class Vx::Tessel::Server::Services::UwpPackageModel.Register "
                          L"threw exception RegisterPackageByFullNameAsync failed with "
                          L"0x80073cf6: The package is broken."));

  std::int32_t force = 7;
  EXPECT_EQ(model->ShouldForceRegistration(L"PC\\ann", L"no full name", &force),
            Hresult(0x80070057));
  EXPECT_EQ(force, 0);

  machine.session = 0xFFFFFFFF;
  EXPECT_EQ(model->Register(kFullName), Hresult(0x800703F0)) << "a Win32 error as an HRESULT";

  std::uint32_t length = 0;
  machine.session = 1;
  model->FindPackageFullName(kFamily, nullptr, &length);
  machine.registration = {};
  EXPECT_EQ(model->Register(kFullName), 0);
  EXPECT_STREQ(model->LastError(), L"") << "an old failure is still told";
}

TEST_F(UwpPackageModelTest, RefusesNullArgumentsWithoutAskingTheMachine) {
  std::int32_t number = 0;
  std::uint64_t version = 0;
  const std::int32_t answers[] = {
      model->FindPackageFullName(nullptr, nullptr, nullptr),
      model->FindPackageFullName(kFamily, nullptr, nullptr),
      model->ShouldForceRegistration(nullptr, kFullName, &number),
      model->ShouldForceRegistration(L"PC\\ann", nullptr, &number),
      model->ShouldForceRegistration(L"PC\\ann", kFullName, nullptr),
      model->Register(nullptr),
      model->GetOriginAndVersion(nullptr, &number, &version),
      model->GetOriginAndVersion(kFamily, nullptr, &version),
      model->GetOriginAndVersion(kFamily, &number, nullptr),
  };
  EXPECT_THAT(answers, ::testing::Each(Hresult(0x80004003)));
  EXPECT_THAT(machine.calls, IsEmpty());
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services
