#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/environment.h"
#include "platform/sessions.h"
#include "simulator/timeline.h"

namespace Vx::Simulator {

struct SimulatedUser {
  std::wstring name;
  std::wstring domain;
  std::wstring sid;
  std::wstring profile;  // a folder, which need not exist
};

// The users of a simulated machine and its console. Initially session 1 shows the logon screen.
// Tokens are handles to real, unnamed kernel objects, so that their owners can close them.
// Thread-safe.
class SimulatedUsers final : public Platform::Sessions, public Platform::Environment {
 public:
  explicit SimulatedUsers(Timeline& log) : timeline(log) {}

  // Adds a user ("PC\name", profile "C:\Users\name") unless the user exists.
  SimulatedUser Add(const std::wstring& name);

  // Changes a user's profile folder.
  void SetProfile(const std::wstring& name, const std::wstring& folder);

  // Logs a user on at the console.
  void LogOn(const std::wstring& name);

  // Returns to the logon screen, in a new session. Does nothing if no user is signed in.
  void LogOff();

  // Leaves the console without a session (Platform::kNoSession) until LogOn.
  void DetachConsole();

  // Returns the user that the calling thread acts as, or nothing for the service.
  std::optional<SimulatedUser> Acting() const;

  // Returns whether any thread, even one that has ended, still acts as a user.
  bool AnyoneActs() const;

  // Returns the user of `token`, or nothing if it is null, the system's or unknown.
  std::optional<SimulatedUser> UserOf(Platform::RawHandle token) const;
  std::optional<SimulatedUser> Find(const std::wstring& name) const;

  // Returns whether `token` is an impersonation token, which cannot start a process.
  bool IsForImpersonation(Platform::RawHandle token) const;

  // Returns a primary token of a user, or of the system for an empty name.
  Platform::Result<Platform::UniqueHandle> TokenOf(const std::wstring& name) const;

  std::uint32_t ActiveConsoleSession() const override;
  Platform::Result<Platform::UniqueHandle> QueryUserToken(std::uint32_t session) const override;
  Platform::Result<Platform::UniqueHandle> DuplicateUserToken(
      Platform::RawHandle token, Platform::TokenType type) const override;
  Platform::Result<std::uint64_t> LogonOf(Platform::RawHandle token) const override;
  Platform::Result<std::wstring> SidOf(Platform::RawHandle token) const override;
  Platform::Result<std::wstring> QueryText(std::uint32_t session,
                                           Platform::SessionText what) const override;
  Platform::ErrorCode Impersonate(Platform::RawHandle token) override;
  Platform::ErrorCode Revert() override;
  Platform::Result<Platform::UniqueHandle> ThreadToken() const override;
  Platform::ErrorCode Resume(Platform::RawHandle threadToken) override;
  Platform::Result<bool> ProcessIsLocalSystem() const override { return true; }

  Platform::Result<std::wstring> Expand(const std::wstring& text,
                                        std::size_t maxChars) const override;
  Platform::Result<std::wstring> ExpandForUser(Platform::RawHandle token, const std::wstring& text,
                                               std::size_t maxChars) const override;
  Platform::Result<std::vector<wchar_t>> Block(Platform::RawHandle token) const override;

 private:
  struct Token {
    std::wstring owner;
    Platform::TokenType type = Platform::TokenType::Primary;
    std::uint64_t logon = 0;
  };
  using Variables = std::vector<std::pair<std::wstring, std::wstring>>;

  static constexpr wchar_t kSystem[] = L"";  // the owner of the system's tokens

  static Variables VariablesOf(const SimulatedUser& user);
  Platform::Result<Platform::UniqueHandle> MakeToken(const std::wstring& owner,
                                                     Platform::TokenType type) const;
  Platform::Result<Platform::UniqueHandle> MakeToken(Token made) const;
  SimulatedUser AddLocked(const std::wstring& name);

  Timeline& timeline;
  mutable std::mutex mutex;  // guards everything below
  std::map<std::wstring, SimulatedUser> users;
  std::optional<std::uint32_t> console = 1;
  std::uint32_t lastSession = 1;
  std::wstring atConsole;  // empty at the logon screen
  mutable std::map<Platform::RawHandle, Token> tokens;
  std::map<std::uint32_t, std::wstring> acting;  // maps a thread id to a user
};

}  // namespace Vx::Simulator
