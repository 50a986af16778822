#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/hresult_error.h"
#include "platform/machine.h"
#include "support/fake_console.h"

namespace Vx::Tests {

inline constexpr wchar_t kFamily[] = L"Some.App_0123456789abc";
inline constexpr wchar_t kFullName[] = L"Some.App_1.0.0.0_x64__0123456789abc";

// A console whose package manager refuses with errors of the Windows Runtime, and which notes as
// whom it was asked.
class PackageMachine final : public FakeConsole {
 public:
  FamilyQuery FindByFamily(const std::wstring& familyName) const override {
    actedAsUser.push_back(acting);
    if (query) return *query;
    return FakeConsole::FindByFamily(familyName);
  }
  std::vector<std::wstring> FindForAllUsers(const std::wstring& familyName) const override {
    actedAsUser.push_back(acting);
    if (refusal) throw winrt::hresult_error(*refusal, L"FindForAll");
    familiesAsked.push_back(familyName);
    return staged;
  }
  Platform::PackageRegistration Register(const std::wstring& fullName,
                                         std::chrono::milliseconds limit) override {
    actedAsUser.push_back(acting);
    if (refusal) throw winrt::hresult_error(*refusal, L"RegisterNow");
    FakeConsole::Register(fullName, limit);
    return registration;
  }

  std::optional<FamilyQuery> query;            // what every family query answers
  std::optional<winrt::hresult> refusal;       // of the package manager
  Platform::PackageRegistration registration;  // how a registration ends
  mutable std::vector<bool> actedAsUser;       // at each question
  mutable std::vector<std::wstring> familiesAsked;

 private:
  Platform::MachineScope scope{[this](Platform::Machine& machine) { Install(machine); }};
};

}  // namespace Vx::Tests
