#pragma once

#include <cstddef>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/environment.h"
#include "platform/kernel_objects.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/processes.h"
#include "platform/sessions.h"
#include "platform/system_services.h"

namespace Vx::Tests {

// The console of a machine: a user, packages, and programs that can be started. Every call that
// Windows may refuse is counted, so that each can be made to fail in turn. One thread at a time,
// or one worker while the test waits.
class FakeConsole : public Platform::ApiSets,
                    public Platform::Environment,
                    public Platform::Packages,
                    public Platform::Processes,
                    public Platform::Sessions {
 public:
  static constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
  static constexpr Platform::ErrorCode kDenied = 5;

  // Puts this console in the place of the machine's.
  void Install(Platform::Machine& machine) {
    machine.apiSets = this;
    machine.environment = this;
    machine.packages = this;
    machine.processes = this;
    machine.sessions = this;
  }

  // Lets call number `index` from now on fail, with an exception where `thrown` and the interface
  // allows one.
  void FailCall(std::size_t index, bool thrown = false) {
    calls.clear();
    failing = index;
    throwing = thrown;
  }

  bool IsPresent(const std::wstring&) const override { return sessionApi; }

  Platform::Result<std::wstring> Expand(const std::wstring& text,
                                        std::size_t maxChars) const override {
    return Platform::WindowsMachine().environment->Expand(text, maxChars);
  }
  Platform::Result<std::wstring> ExpandForUser(Platform::RawHandle, const std::wstring& text,
                                               std::size_t maxChars) const override {
    if (Fails("ExpandForUser")) return Platform::Result<std::wstring>::Failure(kDenied);
    expansionLimits.insert(maxChars);
    for (const auto& [variable, value] : userVariables) {
      if (text.starts_with(variable)) return value + text.substr(variable.size());
    }
    return text;
  }
  Platform::Result<std::vector<wchar_t>> Block(Platform::RawHandle) const override {
    if (Fails("Block")) return Platform::Result<std::vector<wchar_t>>::Failure(kDenied);
    return std::vector<wchar_t>{L'A', L'=', L'1', L'\0', L'\0'};
  }

  FamilyQuery FindByFamily(const std::wstring& familyName) const override {
    if (Fails("FindByFamily")) return {kDenied, 0, 0, {}};
    const auto package = installed.find(familyName);
    if (package == installed.end()) return {};
    return {122, static_cast<std::uint32_t>(package->second.size() + 1), 0, {package->second}};
  }
  PathQuery PathByFullName(const std::wstring& fullName) const override {
    if (Fails("PathByFullName")) return {kDenied, 0, {}};
    return {0, 0, appsFolder + fullName};
  }
  Platform::Result<std::int32_t> StagedOrigin(const std::wstring&) const override {
    if (Fails("StagedOrigin")) return Platform::Result<std::int32_t>::Failure(kDenied);
    return 3;
  }
  Platform::Result<std::uint64_t> Version(const std::wstring&) const override {
    if (Fails("Version")) return Platform::Result<std::uint64_t>::Failure(kDenied);
    return version;
  }
  std::vector<std::wstring> FindForAllUsers(const std::wstring&) const override {
    Throws("FindForAllUsers");
    return staged;
  }
  Platform::Result<std::wstring> AccountSid(const std::wstring& account) const override {
    if (Fails("AccountSid")) return Platform::Result<std::wstring>::Failure(kDenied);
    return L"SID of " + account;
  }
  std::vector<std::wstring> FindForUser(const std::wstring& sid,
                                        const std::wstring&) const override {
    Throws("FindForUser");
    askedSids.push_back(sid);
    return registered;
  }
  Platform::PackageRegistration Register(const std::wstring& fullName,
                                         std::chrono::milliseconds) override {
    Throws("Register");
    registered.push_back(fullName);
    return {};
  }
  std::shared_ptr<Platform::PackageCatalog> OpenCatalogForCurrentUser() override { return {}; }

  Platform::Result<std::uint32_t> Start(Platform::RawHandle token,
                                        const Platform::ProcessStart& start) override {
    if (Fails("Start") || notStarting.contains(start.application)) {
      return Platform::Result<std::uint32_t>::Failure(kDenied);
    }
    started.push_back(start);
    if (realProcesses) return Platform::WindowsMachine().processes->Start(token, start);
    return std::uint32_t{42};
  }
  std::vector<std::uint32_t> Ids(std::size_t) const override { return {}; }
  std::optional<std::wstring> ImagePath(std::uint32_t) const override { return std::nullopt; }
  std::optional<std::uint32_t> Session(std::uint32_t) const override { return std::nullopt; }
  Platform::Result<Platform::UniqueHandle> PrimaryToken(std::uint32_t) const override {
    return Platform::Result<Platform::UniqueHandle>::Failure(kDenied);
  }

  std::uint32_t ActiveConsoleSession() const override { return session; }
  Platform::Result<Platform::UniqueHandle> QueryUserToken(std::uint32_t asked) const override {
    if (Fails("QueryUserToken")) return Platform::Result<Platform::UniqueHandle>::Failure(kDenied);
    return Token(asked);
  }
  Platform::Result<Platform::UniqueHandle> DuplicateUserToken(Platform::RawHandle,
                                                              Platform::TokenType) const override {
    if (Fails("DuplicateUserToken")) {
      return Platform::Result<Platform::UniqueHandle>::Failure(kDenied);
    }
    return Token(session);
  }
  Platform::Result<std::wstring> QueryText(std::uint32_t,
                                           Platform::SessionText what) const override {
    if (Fails("QueryText")) return Platform::Result<std::wstring>::Failure(kDenied);
    return std::wstring(what == Platform::SessionText::UserName ? L"ann" : L"PC");
  }
  Platform::ErrorCode Impersonate(Platform::RawHandle) override {
    if (Fails("Impersonate")) return kDenied;
    ++impersonations;
    acting = true;
    return 0;
  }
  Platform::ErrorCode Revert() override {
    ++reverts;
    if (Fails("Revert")) return kDenied;
    acting = false;
    return 0;
  }
  Platform::Result<bool> ProcessIsLocalSystem() const override { return true; }

  bool sessionApi = true;
  std::uint32_t session = 1;
  std::vector<std::pair<std::wstring, std::wstring>> userVariables{
      {L"%userprofile%", L"C:\\Users\\ann"}, {L"%AppData%", L"C:\\Users\\ann\\AppData\\Roaming"}};
  std::wstring appsFolder = L"C:\\Apps\\";
  std::map<std::wstring, std::wstring> installed;  // family name to full name
  std::vector<std::wstring> staged;
  std::vector<std::wstring> registered;
  std::uint64_t version = 0;
  std::set<std::wstring> notStarting;  // programs that cannot be started
  bool realProcesses = false;

  std::vector<Platform::ProcessStart> started;
  mutable std::vector<std::wstring> askedSids;
  mutable std::set<std::size_t> expansionLimits;
  mutable std::vector<std::string> calls;
  int impersonations = 0;
  int reverts = 0;
  bool acting = false;  // the thread has somebody else's rights

 private:
  bool Fails(const char* call) const {
    calls.emplace_back(call);
    return calls.size() - 1 == failing;
  }
  void Throws(const char* call) const {
    if (!Fails(call)) return;
    if (throwing) throw std::bad_alloc();
    throw std::runtime_error("refused");
  }

  Platform::Result<Platform::UniqueHandle> Token(std::uint32_t of) const {
    if (realProcesses) {
      const auto& sessions = *Platform::WindowsMachine().sessions;
      return sessions.QueryUserToken(of);
    }
    return *Platform::WindowsMachine().kernelObjects->MakeManualEvent({});
  }

  std::size_t failing = kNever;
  bool throwing = false;
};

}  // namespace Vx::Tests
