#include "service/consent_store.h"

#include <cstdint>

#include "host/logging.h"
#include "platform/machine.h"
#include "platform/registry.h"

namespace Vx::Tessel::Server {

namespace {

constexpr wchar_t kUnsupportedType[] =
    L"%S - Checking consent failed due to unsupported registry type %S - %S";
constexpr char kReadRegistry[] = "Vx::Tessel::Server::ConsentStore::ReadRegistry";

constexpr wchar_t kPolicyKey[] = L"SOFTWARE\\Policies\\Vx\\Consent";
constexpr std::uint32_t kRegSz = 1;  // REG_SZ

bool Reads(const wchar_t* value, const wchar_t* expected) {
  return ConsentStore::ReadRegistry(kPolicyKey, value) == expected;
}

// Returns whether the policy keeps the registration in its country or on the machine. Reads a later
// value only if the earlier ones do not decide.
bool TransferIsBlocked() {
  if (Reads(L"TransferOutAllowed", L"False")) return true;
  if (Reads(L"TransferOutConsentRequired", L"True") &&
      !Reads(L"AllowTransferOutOfCountry", L"Accepted")) {
    return true;
  }
  return Reads(L"InCountryStorageRequired", L"True");
}

}  // namespace

std::wstring ConsentStore::ReadRegistry(const std::wstring& key, const std::wstring& value) {
  const auto stored = Platform::CurrentMachine().registry->Read(key, value);
  if (!stored) return {};
  if (stored->type == kRegSz) return Platform::TextOf(*stored);
  // The format takes narrow strings. Both names are ASCII.
  const std::string narrowKey(key.begin(), key.end());
  const std::string narrowValue(value.begin(), value.end());
  Logging::LogManager::GetLogger()->LogError(kUnsupportedType, kReadRegistry, narrowKey.c_str(),
                                             narrowValue.c_str());
  return {};
}

int ConsentStore::Apply(int state) {
  const int candidate = Reads(L"PCaaS", L"True") ? 0 : state;
  return TransferIsBlocked() ? 0 : candidate;
}

}  // namespace Vx::Tessel::Server
