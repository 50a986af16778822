#include "simulator/simulated_users.h"

#include <algorithm>
#include <cwctype>
#include <utility>

#include <windows.h>

#include "platform/machine.h"

namespace Vx::Simulator {

namespace {

using Platform::Result;
using Platform::UniqueHandle;

constexpr wchar_t kComputer[] = L"PC";

bool SameText(const std::wstring& left, const std::wstring& right) {
  return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                              static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

}  // namespace

SimulatedUser SimulatedUsers::Add(const std::wstring& name) {
  const std::lock_guard guard(mutex);
  return AddLocked(name);
}

SimulatedUser SimulatedUsers::AddLocked(const std::wstring& name) {
  const auto found = users.find(name);
  if (found != users.end()) return found->second;
  const std::wstring number = std::to_wstring(1001 + users.size());
  return users
      .emplace(name, SimulatedUser{.name = name,
                                   .domain = kComputer,
                                   .sid = L"S-1-5-21-1-2-3-" + number,
                                   .profile = L"C:\\Users\\" + name})
      .first->second;
}

void SimulatedUsers::SetProfile(const std::wstring& name, const std::wstring& folder) {
  const std::lock_guard guard(mutex);
  AddLocked(name);
  users[name].profile = folder;
}

void SimulatedUsers::LogOn(const std::wstring& name) {
  {
    const std::lock_guard guard(mutex);
    AddLocked(name);
    if (!console || !atConsole.empty()) console = ++lastSession;
    atConsole = name;
  }
  timeline.Add(name + L" logs on");
}

void SimulatedUsers::LogOff() {
  std::wstring name;
  {
    const std::lock_guard guard(mutex);
    if (atConsole.empty()) return;
    name = std::exchange(atConsole, {});
    console = ++lastSession;
  }
  timeline.Add(name + L" logs off");
}

void SimulatedUsers::DetachConsole() {
  const std::lock_guard guard(mutex);
  console.reset();
  atConsole.clear();
}

std::optional<SimulatedUser> SimulatedUsers::Acting() const {
  const std::lock_guard guard(mutex);
  const auto found = acting.find(GetCurrentThreadId());
  if (found == acting.end() || found->second == kSystem) return std::nullopt;
  return users.at(found->second);
}

bool SimulatedUsers::AnyoneActs() const {
  const std::lock_guard guard(mutex);
  return !acting.empty();
}

std::optional<SimulatedUser> SimulatedUsers::UserOf(Platform::RawHandle token) const {
  const std::lock_guard guard(mutex);
  const auto found = tokens.find(token);
  if (found == tokens.end() || found->second.owner == kSystem) return std::nullopt;
  return users.at(found->second.owner);
}

bool SimulatedUsers::IsForImpersonation(Platform::RawHandle token) const {
  const std::lock_guard guard(mutex);
  const auto found = tokens.find(token);
  return found != tokens.end() && found->second.type == Platform::TokenType::Impersonation;
}

std::optional<SimulatedUser> SimulatedUsers::Find(const std::wstring& name) const {
  const std::lock_guard guard(mutex);
  const auto found = users.find(name);
  if (found == users.end()) return std::nullopt;
  return found->second;
}

Result<UniqueHandle> SimulatedUsers::TokenOf(const std::wstring& name) const {
  const std::lock_guard guard(mutex);
  return MakeToken(name, Platform::TokenType::Primary);
}

Result<UniqueHandle> SimulatedUsers::MakeToken(const std::wstring& owner,
                                               Platform::TokenType type) const {
  return MakeToken(Token{owner, type, owner == atConsole ? console.value_or(0) : 0});
}

// The system may reuse a handle value. The new token then replaces the closed one.
Result<UniqueHandle> SimulatedUsers::MakeToken(Token made) const {
  UniqueHandle token(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (token == nullptr) return Platform::Failure(GetLastError());
  tokens[token.get()] = std::move(made);
  return token;
}

std::uint32_t SimulatedUsers::ActiveConsoleSession() const {
  const std::lock_guard guard(mutex);
  return console.value_or(Platform::kNoSession);
}

Result<UniqueHandle> SimulatedUsers::QueryUserToken(std::uint32_t session) const {
  const std::lock_guard guard(mutex);
  if (session != console) return Platform::Failure(ERROR_FILE_NOT_FOUND);
  if (atConsole.empty()) return Platform::Failure(ERROR_NO_TOKEN);
  return MakeToken(atConsole, Platform::TokenType::Primary);
}

Result<UniqueHandle> SimulatedUsers::DuplicateUserToken(Platform::RawHandle token,
                                                        Platform::TokenType type) const {
  const std::lock_guard guard(mutex);
  const auto found = tokens.find(token);
  if (found == tokens.end()) return Platform::Failure(ERROR_INVALID_HANDLE);
  return MakeToken({found->second.owner, type, found->second.logon});
}

Result<std::uint64_t> SimulatedUsers::LogonOf(Platform::RawHandle token) const {
  const std::lock_guard guard(mutex);
  const auto found = tokens.find(token);
  if (found == tokens.end()) return Platform::Failure(ERROR_INVALID_HANDLE);
  return found->second.logon;
}

Result<std::wstring> SimulatedUsers::SidOf(Platform::RawHandle token) const {
  const auto user = UserOf(token);
  if (!user) return Platform::Failure(ERROR_INVALID_HANDLE);
  return user->sid;
}

Result<std::wstring> SimulatedUsers::QueryText(std::uint32_t session,
                                               Platform::SessionText what) const {
  const std::lock_guard guard(mutex);
  if (session != console) return Platform::Failure(ERROR_FILE_NOT_FOUND);
  if (atConsole.empty()) return std::wstring();  // as in Windows at the logon screen
  const SimulatedUser& user = users.at(atConsole);
  return what == Platform::SessionText::UserName ? user.name : user.domain;
}

Platform::ErrorCode SimulatedUsers::Impersonate(Platform::RawHandle token) {
  const std::lock_guard guard(mutex);
  const auto found = tokens.find(token);
  if (found == tokens.end()) return ERROR_INVALID_HANDLE;
  acting[GetCurrentThreadId()] = found->second.owner;
  return ERROR_SUCCESS;
}

Platform::ErrorCode SimulatedUsers::Revert() {
  const std::lock_guard guard(mutex);
  acting.erase(GetCurrentThreadId());
  return ERROR_SUCCESS;
}

Result<UniqueHandle> SimulatedUsers::ThreadToken() const {
  const std::lock_guard guard(mutex);
  const auto found = acting.find(GetCurrentThreadId());
  if (found == acting.end()) return UniqueHandle();
  return MakeToken(found->second, Platform::TokenType::Impersonation);
}

Platform::ErrorCode SimulatedUsers::Resume(Platform::RawHandle threadToken) {
  return Impersonate(threadToken);
}

Result<std::wstring> SimulatedUsers::Expand(const std::wstring& text, std::size_t maxChars) const {
  return Platform::WindowsMachine().environment->Expand(text, maxChars);
}

Result<std::wstring> SimulatedUsers::ExpandForUser(Platform::RawHandle token,
                                                   const std::wstring& text,
                                                   std::size_t maxChars) const {
  const auto user = UserOf(token);
  if (!user) return Expand(text, maxChars);
  std::wstring result = text;
  for (const auto& [name, value] : VariablesOf(*user)) {
    const std::wstring marker = L"%" + name + L"%";
    for (std::size_t at = 0; at + marker.size() <= result.size();) {
      if (!SameText(result.substr(at, marker.size()), marker)) {
        ++at;
        continue;
      }
      result.replace(at, marker.size(), value);
      at += value.size();
    }
  }
  return Expand(result, maxChars);
}

Result<std::vector<wchar_t>> SimulatedUsers::Block(Platform::RawHandle token) const {
  const auto user = UserOf(token);
  Variables variables{{L"SystemRoot", L"C:\\windows"}};
  if (user) variables = VariablesOf(*user);
  std::vector<wchar_t> block;
  for (const auto& [name, value] : variables) {
    std::wstring entry = name;
    entry.append(L"=").append(value);
    block.insert(block.end(), entry.c_str(), entry.c_str() + entry.size() + 1);
  }
  block.push_back(L'\0');
  return block;
}

SimulatedUsers::Variables SimulatedUsers::VariablesOf(const SimulatedUser& user) {
  return {{L"APPDATA", user.profile + L"\\AppData\\Roaming"},
          {L"LOCALAPPDATA", user.profile + L"\\AppData\\Local"},
          {L"USERNAME", user.name},
          {L"USERPROFILE", user.profile}};
}

}  // namespace Vx::Simulator
