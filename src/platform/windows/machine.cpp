#include "platform/machine.h"

#include <cstdio>

#include <windows.h>

#include "platform/runtime/fail_fast.h"
#include "platform/windows/capabilities.h"
#include "platform/worker_machine.h"

namespace Vx::Platform {

namespace {

constexpr char kOutOfOrder[] = "A MachineScope ended while another one was installed above it.\n";
constexpr char kWorkersRun[] = "A MachineScope ended while a worker still ran under it.\n";

// In milliseconds. A worker can notify a test a few instructions before it stops being counted. If
// a worker runs for longer, the scope's owner has forgotten to wait for it.
constexpr int kGrace = 2000;

std::atomic<InstalledMachine*> installedLast{nullptr};

// The machine that each worker was started under. Uses TlsAlloc, because the runtime's emulated
// thread_local never frees its memory and pins the module.
class ThreadSlot {
 public:
  ThreadSlot() noexcept : index(TlsAlloc()) {}
  ThreadSlot(const ThreadSlot&) = delete;
  ThreadSlot& operator=(const ThreadSlot&) = delete;
  // No worker can still run here, because each holds a reference to the module.
  ~ThreadSlot() {
    const DWORD freed = index.exchange(TLS_OUT_OF_INDEXES);
    if (freed != TLS_OUT_OF_INDEXES) TlsFree(freed);
  }

  InstalledMachine* Get() const noexcept {
    const DWORD slot = index.load(std::memory_order_relaxed);
    if (slot == TLS_OUT_OF_INDEXES) return nullptr;
    const DWORD error = GetLastError();  // TlsGetValue clears it
    auto* value = static_cast<InstalledMachine*>(TlsGetValue(slot));
    SetLastError(error);
    return value;
  }

  void Set(InstalledMachine* value) noexcept {
    const DWORD slot = index.load(std::memory_order_relaxed);
    if (slot != TLS_OUT_OF_INDEXES) TlsSetValue(slot, value);
  }

 private:
  std::atomic<DWORD> index;
};

ThreadSlot& WorkerSlot() noexcept {
  static ThreadSlot slot;
  return slot;
}

InstalledMachine& RealInstalled() noexcept {
  static InstalledMachine real{.machine = WindowsMachine()};
  return real;
}

[[noreturn]] void Fail(const char* message) {
  static_cast<void>(std::fputs(message, stderr));
  static_cast<void>(std::fflush(stderr));
  FailFast();
}

bool WorkersEnd(const InstalledMachine& installed) {
  for (int waited = 0; installed.workers.load() != 0; ++waited) {
    if (waited == kGrace) return false;
    Sleep(1);
  }
  return true;
}

}  // namespace

InstalledMachine& CurrentInstalled() noexcept {
  if (InstalledMachine* own = WorkerSlot().Get(); own != nullptr) return *own;
  if (InstalledMachine* last = installedLast.load(std::memory_order_acquire); last != nullptr) {
    return *last;
  }
  return RealInstalled();
}

void AdoptMachine(InstalledMachine& installed) noexcept {
  WorkerSlot().Set(&installed);
}

const Machine& CurrentMachine() noexcept {
  return CurrentInstalled().machine;
}

const Machine& WindowsMachine() noexcept {
  static const Machine machine{
      .apiSets = &WindowsApiSets(),
      .appServices = &WindowsAppServices(),
      .clock = &WindowsClock(),
      .com = &WindowsCom(),
      .dataProtection = &WindowsDataProtection(),
      .environment = &WindowsEnvironment(),
      .files = &WindowsFiles(),
      .kernelObjects = &WindowsKernelObjects(),
      .lockdownPolicy = &WindowsLockdownPolicy(),
      .oobe = &WindowsOobe(),
      .packages = &WindowsPackages(),
      .processes = &WindowsProcesses(),
      .registry = &WindowsRegistry(),
      .sessions = &WindowsSessions(),
      .systemTriggers = &WindowsSystemTriggers(),
      .threads = &WindowsThreads(),
      .trustProvider = &WindowsTrustProvider(),
  };
  return machine;
}

MachineScope::MachineScope(const std::function<void(Machine&)>& change)
    : installed(std::make_unique<InstalledMachine>()) {
  installed->machine = CurrentMachine();
  change(installed->machine);
  installed->previous = installedLast.load();
  installed->workerBefore = WorkerSlot().Get();
  if (installed->workerBefore != nullptr) WorkerSlot().Set(installed.get());
  installedLast.store(installed.get());
}

MachineScope::~MachineScope() {
  if (installedLast.load() != installed.get()) Fail(kOutOfOrder);
  if (!WorkersEnd(*installed)) Fail(kWorkersRun);
  if (installed->workerBefore != nullptr) WorkerSlot().Set(installed->workerBefore);
  installedLast.store(installed->previous);
}

}  // namespace Vx::Platform
