#include "service/consent_store.h"

#include <array>
#include <iterator>
#include <string>

#include <gmock/gmock.h>

#include "platform/machine.h"
#include "platform/registry.h"
#include "support/log_capture.h"

#include <windows.h>

namespace Vx::Tests {
namespace {

using Tessel::Server::ConsentStore;

constexpr wchar_t kPolicy[] = L"SOFTWARE\\Policies\\Vx\\Consent";

// Puts an empty key of the current user in the place of HKEY_LOCAL_MACHINE, for this process.
class PrivateRegistry {
 public:
  PrivateRegistry() : path(L"Software\\vx-consent-" + std::to_wstring(GetCurrentProcessId())) {
    RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &root,
                    nullptr);
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, root);
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, kPolicy, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &policy,
                    nullptr);
  }
  PrivateRegistry(const PrivateRegistry&) = delete;
  PrivateRegistry& operator=(const PrivateRegistry&) = delete;
  ~PrivateRegistry() {
    RegCloseKey(policy);
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegCloseKey(root);
    RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
  }

  void Set(const wchar_t* name, const std::wstring& text) {
    RegSetValueExW(policy, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
  }
  void SetNumber(const wchar_t* name, DWORD number) {
    RegSetValueExW(policy, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                   sizeof number);
  }
  void Clear(const wchar_t* name) { RegDeleteValueW(policy, name); }

 private:
  std::wstring path;
  HKEY root = nullptr;
  HKEY policy = nullptr;
};

TEST(ConsentStore, FollowsThePolicyInEveryCombination) {
  static constexpr struct {
    const wchar_t* name;
    const wchar_t* decisive;
    const wchar_t* other;
  } kValues[] = {
      {L"PCaaS", L"True", L"true"},
      {L"TransferOutAllowed", L"False", L"True"},
      {L"TransferOutConsentRequired", L"True", L"True "},
      {L"AllowTransferOutOfCountry", L"Accepted", L"Declined"},
      {L"InCountryStorageRequired", L"True", L"TRUE"},
  };
  enum Setting { kDecisive, kOther, kAbsent, kSettings };
  constexpr int kState = 3;

  PrivateRegistry registry;
  std::array<int, std::size(kValues)> settings{};
  for (int combination = 0; combination < 243; ++combination) {
    int rest = combination;
    for (std::size_t i = 0; i < settings.size(); ++i, rest /= kSettings) {
      settings[i] = rest % kSettings;
      if (settings[i] == kAbsent) {
        registry.Clear(kValues[i].name);
      } else {
        registry.Set(kValues[i].name,
                     settings[i] == kDecisive ? kValues[i].decisive : kValues[i].other);
      }
    }
    const auto reads = [&](int value) { return settings[static_cast<std::size_t>(value)] == 0; };
    const bool told = !reads(0) && !reads(1) && !(reads(2) && !reads(3)) && !reads(4);
    EXPECT_EQ(ConsentStore::Apply(kState), told ? kState : 0) << "combination " << combination;
  }
}

TEST(ConsentStore, AValueThatIsNoTextIsReportedAndCountsAsEmpty) {
  PrivateRegistry registry;
  LogCapture log;
  registry.SetNumber(L"PCaaS", 1);
  EXPECT_EQ(ConsentStore::ReadRegistry(kPolicy, L"PCaaS"), L"");
  EXPECT_THAT(log.Lines(),
              testing::ElementsAre(
                  L"error|Vx::Tessel::Server::ConsentStore::ReadRegistry - Checking consent failed "
                  L"due to unsupported registry type SOFTWARE\\Policies\\Vx\\Consent - PCaaS"));
}

TEST(ConsentStore, AMissingKeyOrValueIsEmptyAndSilent) {
  PrivateRegistry registry;
  LogCapture log;
  EXPECT_EQ(ConsentStore::ReadRegistry(kPolicy, L"PCaaS"), L"");
  EXPECT_EQ(ConsentStore::ReadRegistry(L"SOFTWARE\\Policies\\Vx\\Nothing", L"PCaaS"), L"");
  EXPECT_EQ(ConsentStore::Apply(1), 1);
  EXPECT_THAT(log.Lines(), testing::IsEmpty());
}

}  // namespace
}  // namespace Vx::Tests
