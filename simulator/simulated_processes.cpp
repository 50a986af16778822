#include "simulator/simulated_processes.h"

#include <algorithm>

namespace Vx::Simulator {

namespace {

using Platform::Result;

constexpr Platform::ErrorCode kInvalidParameter = 87;         // ERROR_INVALID_PARAMETER
constexpr Platform::ErrorCode kBadImpersonationLevel = 1346;  // ERROR_BAD_IMPERSONATION_LEVEL
constexpr wchar_t kSystem[] = L"SYSTEM";

// The logon process that every console session has. It is not stored.
constexpr std::uint32_t kLogonId = 600;
constexpr wchar_t kLogonProgram[] = L"C:\\windows\\System32\\winlogon.exe";

}  // namespace

std::vector<SimulatedProcess> SimulatedProcesses::Started() const {
  const std::lock_guard guard(mutex);
  return started;
}

void SimulatedProcesses::End(std::uint32_t id) {
  const std::lock_guard guard(mutex);
  running.erase(id);
}

void SimulatedProcesses::Refuse(const std::wstring& application, Platform::ErrorCode error) {
  const std::lock_guard guard(mutex);
  refused[application] = error;
}

Result<std::uint32_t> SimulatedProcesses::Start(Platform::RawHandle token,
                                                const Platform::ProcessStart& start) {
  const auto user = users.UserOf(token);
  SimulatedProcess process{.id = 0,
                           .session = token == nullptr ? 0 : users.ActiveConsoleSession(),
                           .user = user ? user->name : kSystem,
                           .start = start};
  // https://learn.microsoft.com/en-us/windows/win32/api/securitybaseapi/nf-securitybaseapi-duplicatetoken
  Platform::ErrorCode error = users.IsForImpersonation(token) ? kBadImpersonationLevel : 0;
  {
    const std::lock_guard guard(mutex);
    const auto refusal = refused.find(start.application);
    if (refusal != refused.end()) error = refusal->second;
    if (error == 0) {
      process.id = ++lastId;
      started.push_back(process);
      running[process.id] = process;
    }
  }
  if (error != 0) {
    timeline.Add(process.user + L" cannot start " + start.application);
    return Platform::Failure(error);
  }
  timeline.Add(process.user + L" starts " + start.commandLine);
  return process.id;
}

std::vector<std::uint32_t> SimulatedProcesses::Ids(std::size_t limit) const {
  std::vector<std::uint32_t> ids;
  if (users.ActiveConsoleSession() != Platform::kNoSession) ids.push_back(kLogonId);
  const std::lock_guard guard(mutex);
  for (const auto& [id, process] : running) ids.push_back(id);
  ids.resize(std::min(ids.size(), limit));
  return ids;
}

std::optional<std::wstring> SimulatedProcesses::ImagePath(std::uint32_t id) const {
  if (id == kLogonId) return kLogonProgram;
  const std::lock_guard guard(mutex);
  const auto found = running.find(id);
  if (found == running.end()) return std::nullopt;
  return found->second.start.application;
}

std::optional<std::uint32_t> SimulatedProcesses::Session(std::uint32_t id) const {
  if (id == kLogonId) return users.ActiveConsoleSession();
  const std::lock_guard guard(mutex);
  const auto found = running.find(id);
  if (found == running.end()) return std::nullopt;
  return found->second.session;
}

Result<Platform::UniqueHandle> SimulatedProcesses::PrimaryToken(std::uint32_t id) const {
  if (id == kLogonId) return users.TokenOf({});
  const std::lock_guard guard(mutex);
  const auto found = running.find(id);
  if (found == running.end()) return Platform::Failure(kInvalidParameter);
  const std::wstring& user = found->second.user;
  return users.TokenOf(user == kSystem ? std::wstring() : user);
}

}  // namespace Vx::Simulator
