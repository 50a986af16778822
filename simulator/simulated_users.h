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

// The users of a simulated machine and the console that they log on to. At first the console shows
// the logon screen of session 1. Tokens are handles of real, unnamed kernel objects, so that their
// owners can close them. Any thread.
class SimulatedUsers final : public Platform::Sessions, public Platform::Environment {
 public:
  explicit SimulatedUsers(Timeline& log) : timeline(log) {}

  // Adds a user of this name ("PC\name", profile "C:\Users\name") if there is none.
  SimulatedUser Add(const std::wstring& name);

  // Changes the profile folder of the user of this name.
  void SetProfile(const std::wstring& name, const std::wstring& folder);

  // Logs the user of this name on at the console.
  void LogOn(const std::wstring& name);

  // Returns to the logon screen, in a new session. Does nothing if no user is signed in.
  void LogOff();

  // Leaves the console without a session (Platform::kNoSession), as between two sessions, until
  // LogOn.
  void DetachConsole();

  // The user that the calling thread acts as, or empty for the service itself.
  std::optional<SimulatedUser> Acting() const;

  // Whether any thread, including one that has ended, did not revert to the service.
  bool AnyoneActs() const;

  // The user of `token`. Empty for null, for a token of the system and for any other handle.
  std::optional<SimulatedUser> UserOf(Platform::RawHandle token) const;
  std::optional<SimulatedUser> Find(const std::wstring& name) const;

  // Whether `token` is an impersonation token, with which Windows starts no process.
  bool IsForImpersonation(Platform::RawHandle token) const;

  // A primary token of the user of this name, or of the system for an empty name.
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

  static constexpr wchar_t kSystem[] = L"";  // the owner name of the system's own tokens

  static Variables VariablesOf(const SimulatedUser& user);
  Platform::Result<Platform::UniqueHandle> MakeToken(const std::wstring& owner,
                                                     Platform::TokenType type) const;
  Platform::Result<Platform::UniqueHandle> MakeToken(Token made) const;
  SimulatedUser AddLocked(const std::wstring& name);

  Timeline& timeline;
  mutable std::mutex mutex;  // guards what follows
  std::map<std::wstring, SimulatedUser> users;
  std::optional<std::uint32_t> console = 1;
  std::uint32_t lastSession = 1;
  std::wstring atConsole;  // empty at the logon screen
  mutable std::map<Platform::RawHandle, Token> tokens;
  std::map<std::uint32_t, std::wstring> acting;  // thread id to user
};

}  // namespace Vx::Simulator
