#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/windows_runtime_error.h"
#include "platform/winrt/winrt_owners.h"

namespace Vx::Tests {

// How an asynchronous operation of the fakes ends; on request, only CompletePending ends it.
struct FakeEnding {
  Abi::AsyncStatus status = Abi::AsyncStatus::Completed;
  HRESULT error = S_OK;
  bool onRequest = false;
  bool refusesHandler = false;  // but keeps it, and calls it at the end all the same
};

// A Windows Runtime of our own for the life of the fixture: meanwhile the package manager, the
// package catalog, the app-service connection, ValueSet and PropertyValue are the fakes'. Public
// members are set before the code under test runs and read afterwards. Every test ends with nothing
// of the runtime left over.
class RuntimeTest : public testing::Test {
 public:
  RuntimeTest();
  ~RuntimeTest() override;

  // Fails the call number `call` (from 1) into the fakes from now on with E_ACCESSDENIED.
  void FailCall(int call) { callsUntilFailure = call; }

  // Waits until there is one that CompletePending can end.
  void AwaitPending();

  // Ends the operation that was started last, on the calling thread. False when there is none.
  bool CompletePending();

  // Waits for so many operations and ends them, on the calling thread.
  void CompletePendingOnes(int count);

  // Delivers an uninstalling notification to every handler of every catalog, as the system does:
  // from a copy of the list, so that a handler removed meanwhile may still be called.
  using Handlers = std::map<std::int64_t, Abi::ComPtr<Abi::IPackageUninstallingHandler>>;
  HRESULT NotifyUninstalling(const std::wstring& familyName, bool complete);
  static HRESULT NotifyUninstalling(const std::wstring& familyName, bool complete,
                                    const Handlers& called);

  // Waits until a catalog has a handler, and returns those that there are then.
  Handlers AwaitHandlers();

  std::vector<std::wstring> machinePackages;  // full names of the one family there is
  std::map<std::wstring, std::vector<std::wstring>> userPackages;  // by SID
  bool answerNothing = false;  // succeed without putting an interface out
  FakeEnding deployment;
  HRESULT extendedErrorCode = S_OK;  // in the deployment's report
  std::wstring errorText;
  std::int32_t connectionStatus = 0;
  std::int32_t responseStatus = 0;
  FakeEnding opening;
  FakeEnding replying;
  std::optional<std::wstring> reply = L"understood";  // under "response"; none: no such key
  bool replyIsNumber = false;

  std::vector<std::wstring> registered;      // what registration was asked for
  std::vector<std::wstring> familiesAsked;   // by every find
  Handlers handlers;                         // by token
  std::mutex handlersMutex;                  // for threads that the test does not wait for
  int cancelled = 0;                         // operations
  int closed = 0;                            // connections
  std::vector<std::wstring> openedServices;  // "family!service"
  APTTYPE catalogApartment{};                // of the thread that opened the last catalog
  bool openedAsAnother = false;              // the thread that opened the last one impersonated
  std::vector<std::wstring> messages;        // texts under "message"

  // The fakes' own side: whether the call that begins is to fail, and what ends an operation.
  bool Fails() { return callsUntilFailure > 0 && --callsUntilFailure == 0; }
  void Pend(std::function<void()> complete);

 protected:
  void TearDown() override;

  // Objects of the fakes, Windows Runtime strings and uses of an apartment are balanced.
  virtual void ExpectNothingLeft();

  // Runs `operation`, which returns an HRESULT, with the first call into the runtime failing, then
  // the second, and so on to the last, and expects each run to fail so and to leave nothing behind.
  void ExpectEachFailureTold(int fewestCalls, const std::function<HRESULT()>& operation);

 private:
  int callsUntilFailure = -1;
  std::mutex pendingMutex;
  std::function<void()> pending;
};

// Registers the fakes with Windows for the life of this object and for this process alone, so that
// a module activates them which is loaded as it ships. Calls that it makes are not counted.
class RegisteredFakes {
 public:
  RegisteredFakes();
  RegisteredFakes(const RegisteredFakes&) = delete;
  RegisteredFakes& operator=(const RegisteredFakes&) = delete;
  ~RegisteredFakes();

 private:
  std::wstring keyName;
  HKEY machine = nullptr;  // stands in for HKEY_LOCAL_MACHINE
};

}  // namespace Vx::Tests
