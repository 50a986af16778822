#pragma once

#include "platform/windows_runtime_error.h"
#include "platform/winrt/winrt_owners.h"
#include "support/test.h"

namespace Vx::Tests {

// How a fake asynchronous operation ends. If `onRequest`, only CompletePending ends it.
struct FakeEnding {
  Abi::AsyncStatus status = Abi::AsyncStatus::Completed;
  HRESULT error = S_OK;
  bool onRequest = false;
  bool refusesHandler = false;  // but keeps the handler and calls it at the end
};

// Replaces the Windows Runtime while the fixture lives: the package manager, the package catalog,
// the app-service connection, ValueSet and PropertyValue are fakes. Set public members before the
// code under test runs and read them afterwards. Each test must leave no runtime object behind.
class RuntimeTest : public testing::Test {
 public:
  RuntimeTest();
  ~RuntimeTest() override;

  // Fails call number `call` (from 1) into the fakes with E_ACCESSDENIED.
  void FailCall(int call) { callsUntilFailure = call; }

  void AwaitPending();

  // Ends the most recent operation, on the calling thread. Returns false if there is none.
  bool CompletePending();

  // Waits for `count` operations and ends them on the calling thread.
  void CompletePendingOnes(int count);

  // Delivers an uninstalling notification to all handlers of all catalogs. Uses a copy of the list,
  // as the system does, so a removed handler may still be called.
  using Handlers = std::map<std::int64_t, Abi::ComPtr<Abi::IPackageUninstallingHandler>>;
  HRESULT NotifyUninstalling(const std::wstring& familyName, bool complete);
  static HRESULT NotifyUninstalling(const std::wstring& familyName, bool complete,
                                    const Handlers& called);

  // Waits until a catalog has a handler, and returns all current ones.
  Handlers AwaitHandlers();

  std::vector<std::wstring> machinePackages;                       // full names in the only family
  std::map<std::wstring, std::vector<std::wstring>> userPackages;  // by SID
  bool answerNothing = false;  // succeed without returning an interface
  FakeEnding deployment;
  HRESULT extendedErrorCode = S_OK;  // in the deployment's report
  std::wstring errorText;
  std::int32_t connectionStatus = 0;
  std::int32_t responseStatus = 0;
  FakeEnding opening;
  FakeEnding replying;
  std::optional<std::wstring> reply = L"understood";  // under "response", if there is one
  bool replyIsNumber = false;

  std::vector<std::wstring> registered;      // the requested registrations
  std::vector<std::wstring> familiesAsked;   // one per find
  Handlers handlers;                         // by token
  std::mutex handlersMutex;                  // for threads that the test does not wait for
  int cancelled = 0;                         // cancelled operations
  int closed = 0;                            // closed connections
  std::vector<std::wstring> openedServices;  // "family!service"
  APTTYPE catalogApartment{};                // of the thread that opened the last catalog
  bool openedAsAnother = false;              // whether that thread impersonated
  std::vector<std::wstring> messages;        // texts under "message"

  // For the fakes: whether this call must fail, and the function that completes an operation.
  bool Fails() { return callsUntilFailure > 0 && --callsUntilFailure == 0; }
  void Pend(std::function<void()> complete);

 protected:
  void TearDown() override;

  // Expects that no fake object, Windows Runtime string or apartment is left.
  virtual void ExpectNothingLeft();

  // Runs `operation`, which returns an HRESULT, with the first call into the runtime failing, then
  // the second, and so on. Expects each run to fail with that error and to leave nothing behind.
  void ExpectEachFailureTold(int fewestCalls, const std::function<HRESULT()>& operation);

 private:
  int callsUntilFailure = -1;
  std::mutex pendingMutex;
  std::function<void()> pending;
};

// Registers the fakes with Windows for this process while it lives, so that a shipping module
// activates them. The module's own calls are not counted.
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
