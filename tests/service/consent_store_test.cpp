#include "service/consent_store.h"

#include <array>
#include <iterator>
#include <string>

#include <gmock/gmock.h>

#include "support/log_capture.h"
#include "support/private_local_machine.h"

#include <windows.h>

namespace Vx::Tests {
namespace {

using Tessel::Server::ConsentStore;

constexpr wchar_t kPolicy[] = L"SOFTWARE\\Policies\\Vx\\Consent";

// The policy key below a HKEY_LOCAL_MACHINE of this process's own.
class PrivatePolicy {
 public:
  PrivatePolicy() {
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, kPolicy, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                    nullptr, &key, nullptr);
  }
  PrivatePolicy(const PrivatePolicy&) = delete;
  PrivatePolicy& operator=(const PrivatePolicy&) = delete;
  ~PrivatePolicy() { RegCloseKey(key); }

  void Set(const wchar_t* name, const std::wstring& text) {
    RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
  }
  void SetNumber(const wchar_t* name, DWORD number) {
    RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
  }
  void Clear(const wchar_t* name) { RegDeleteValueW(key, name); }

 private:
  PrivateLocalMachine localMachine;
  HKEY key = nullptr;
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

  PrivatePolicy policy;
  std::array<int, std::size(kValues)> settings{};
  for (int combination = 0; combination < 243; ++combination) {
    int rest = combination;
    for (std::size_t i = 0; i < settings.size(); ++i, rest /= kSettings) {
      settings[i] = rest % kSettings;
      if (settings[i] == kAbsent) {
        policy.Clear(kValues[i].name);
      } else {
        policy.Set(kValues[i].name,
                   settings[i] == kDecisive ? kValues[i].decisive : kValues[i].other);
      }
    }
    const auto reads = [&](int value) { return settings[static_cast<std::size_t>(value)] == 0; };
    const bool told = !reads(0) && !reads(1) && !(reads(2) && !reads(3)) && !reads(4);
    EXPECT_EQ(ConsentStore::Apply(kState), told ? kState : 0) << "combination " << combination;
  }
}

TEST(ConsentStore, AMissingValueIsSilentAndOneThatIsNoTextIsReported) {
  PrivatePolicy policy;
  LogCapture log;
  EXPECT_EQ(ConsentStore::ReadRegistry(kPolicy, L"PCaaS"), L"");
  EXPECT_EQ(ConsentStore::ReadRegistry(L"SOFTWARE\\Policies\\Vx\\Nothing", L"PCaaS"), L"");
  EXPECT_THAT(log.Lines(), testing::IsEmpty());
  policy.SetNumber(L"PCaaS", 1);
  EXPECT_EQ(ConsentStore::ReadRegistry(kPolicy, L"PCaaS"), L"");
  EXPECT_THAT(log.Lines(),
              testing::ElementsAre(
                  L"error|Vx::Tessel::Server::ConsentStore::ReadRegistry - Checking consent failed "
                  L"due to unsupported registry type SOFTWARE\\Policies\\Vx\\Consent - PCaaS"));
}

}  // namespace
}  // namespace Vx::Tests
