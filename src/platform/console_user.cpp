#include "platform/console_user.h"

#include "platform/machine.h"
#include "platform/runtime/fail_fast.h"
#include "platform/system_services.h"

namespace Vx::Platform {

namespace {

constexpr ErrorCode kCallNotImplemented = 120;  // ERROR_CALL_NOT_IMPLEMENTED
constexpr ErrorCode kNoToken = 1008;            // ERROR_NO_TOKEN
constexpr ErrorCode kLogonFailure = 1326;       // ERROR_LOGON_FAILURE

// Returns zero if `token` belongs to the logon session in `same` (set here if empty), or an error.
ErrorCode CheckLogon(RawHandle token, OneLogon& same) {
  const auto logon = CurrentMachine().sessions->LogonOf(token);
  if (!logon) return logon.Error();
  if (!same) same = *logon;
  return *same == *logon ? 0 : kLogonFailure;
}

}  // namespace

UniqueHandle ConsoleUserToken(const ActingReport& report, OneLogon* same) {
  const Machine& machine = CurrentMachine();
  const std::uint32_t session = machine.sessions->ActiveConsoleSession();
  if (session == kNoSession) {
    report(ActingStep::Session, kNoToken);
    return nullptr;
  }
  if (!machine.apiSets->IsPresent(kSessionApiSet)) {
    report(ActingStep::SessionApi, kCallNotImplemented);
    return nullptr;
  }
  auto token = machine.sessions->QueryUserToken(session);
  ErrorCode error = token ? 0 : token.Error();
  if (token && same != nullptr) error = CheckLogon(token->get(), *same);
  if (error == 0) return *std::move(token);
  report(ActingStep::Token, error);
  return nullptr;
}

UniqueHandle ConsoleUserToken(TokenType type, const ActingReport& report, OneLogon* same) {
  const UniqueHandle token = ConsoleUserToken(report, same);
  if (token == nullptr) return nullptr;
  auto copy = CurrentMachine().sessions->DuplicateUserToken(token.get(), type);
  if (copy) return *std::move(copy);
  report(ActingStep::TokenCopy, copy.Error());
  return nullptr;
}

Impersonation::Impersonation(RawHandle token, ActingReport report) : failed(std::move(report)) {
  const ErrorCode error = CurrentMachine().sessions->Impersonate(token);
  active = error == 0;
  if (!active) failed(ActingStep::Impersonation, error);
}

Impersonation::~Impersonation() {
  if (!active) return;
  const ErrorCode error = CurrentMachine().sessions->Revert();
  if (error != 0) failed(ActingStep::Revert, error);
}

OwnIdentity::OwnIdentity() {
  Sessions& sessions = *CurrentMachine().sessions;
  auto token = sessions.ThreadToken();
  if (!token) {
    error = token.Error();
    return;
  }
  if (*token == nullptr) return;
  error = sessions.Revert();
  if (error == 0) before = *std::move(token);
}

ErrorCode OwnIdentity::End() {
  const UniqueHandle token = std::move(before);
  return token == nullptr ? 0 : CurrentMachine().sessions->Resume(token.get());
}

// Queries the real Windows, because a simulated machine would not see a token that the host left on
// the thread.
void ExpectOwnIdentity() noexcept {
#ifndef NDEBUG
  const auto token = WindowsMachine().sessions->ThreadToken();
  if (token && *token != nullptr) FailFast();
#endif
}

}  // namespace Vx::Platform
