#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/winrt_owners.h"
#include "support/private_local_machine.h"

namespace Vx::Tests {

// When an asynchronous operation of the fakes ends.
enum class Completion { AtOnce, OnRequest };

// What the faked deployment comes to.
struct FakeDeployment {
  Completion completion = Completion::AtOnce;
  Abi::AsyncStatus status = Abi::AsyncStatus::Completed;
  HRESULT errorCode = S_OK;          // of the operation
  HRESULT extendedErrorCode = S_OK;  // in its report
  std::wstring errorText;
};

// What the faked app does.
struct FakeApp {
  std::int32_t connectionStatus = 0;
  std::int32_t responseStatus = 0;
  Completion opening = Completion::AtOnce;
  Completion replying = Completion::AtOnce;
  Abi::AsyncStatus openingStatus = Abi::AsyncStatus::Completed;
  HRESULT openingError = S_OK;
  std::optional<std::wstring> reply =
      L"understood";  // the text under "response"; none: no such key
  bool replyIsNumber = false;
};

// A Windows Runtime of our own for the life of the object: while it lives, the package manager, the
// package catalog, the app-service connection, ValueSet and PropertyValue are activated from here,
// through the system's own activation. One at a time. Members are set before the code under test
// runs and read afterwards.
class FakeRuntime {
 public:
  FakeRuntime();
  FakeRuntime(const FakeRuntime&) = delete;
  FakeRuntime& operator=(const FakeRuntime&) = delete;
  ~FakeRuntime();

  // What is still owned by somebody: objects of the fakes, Windows Runtime strings made or copied
  // in this program, entries of apartments, and uses of the multithreaded apartment.
  struct Alive {
    int objects = 0;
    int strings = 0;
    int apartments = 0;
    int apartmentUses = 0;
    bool operator==(const Alive&) const = default;
  };
  static Alive Count();

  // Fails the call number `call` (from 1) into the fakes from now on with E_ACCESSDENIED; -1: none.
  void FailCall(int call);

  // Whether that call has been reached.
  bool HasFailed() const { return callsUntilFailure == 0; }

  // Ends the operation that was started last, on the calling thread. False when there is none.
  bool CompletePending();
  void DropPending();

  // Delivers an uninstalling notification to every handler of every catalog, as the system does:
  // from a copy of the list, so that a handler removed meanwhile may still be called.
  HRESULT NotifyUninstalling(const std::wstring& familyName, bool complete);

  // A reference to the handler that was added last, as the system may hold it.
  Abi::ComPtr<Abi::IPackageUninstallingHandler> LastHandler() const { return lastHandler; }
  void ForgetHandler() { lastHandler.Reset(); }

  std::vector<std::wstring> machinePackages;  // full names of the one family there is
  std::map<std::wstring, std::vector<std::wstring>> userPackages;  // by SID
  bool answerNothing = false;  // succeed without putting an interface out
  FakeDeployment deployment;
  FakeApp app;

  std::vector<std::wstring> registered;     // what registration was asked for
  std::vector<std::wstring> familiesAsked;  // by every find
  std::map<std::int64_t, Abi::ComPtr<Abi::IPackageUninstallingHandler>> handlers;
  int cancelled = 0;                         // operations
  int closed = 0;                            // connections
  std::vector<std::wstring> openedServices;  // "family!service"
  std::vector<std::wstring> messages;        // texts under "message"

  // The rest is the fakes' own side.
  static FakeRuntime& Current();
  HRESULT Step();
  void Pend(IUnknown* operation, void (*complete)(IUnknown*));
  std::int64_t AddHandler(Abi::IPackageUninstallingHandler* handler);

 private:
  int callsUntilFailure = -1;
  Abi::ComPtr<IUnknown> pending;
  void (*completePending)(IUnknown*) = nullptr;
  std::mutex pendingMutex;
  Abi::ComPtr<Abi::IPackageUninstallingHandler> lastHandler;
  std::int64_t nextToken = 100;
  // Activation looks the classes up below HKEY_LOCAL_MACHINE.
  PrivateLocalMachine registry;
};

}  // namespace Vx::Tests
