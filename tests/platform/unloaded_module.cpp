#include <windows.h>

#include "platform/machine.h"
#include "platform/thread.h"

// Starts a detached worker that ends when `go` is signalled and signals `done` as its last act.
extern "C" void StartWaitingWorker(HANDLE go, HANDLE done) {
  Vx::Platform::StartDetached([go, done] {
    WaitForSingleObject(go, 20'000);
    // Code and data of this module, used after its owner let go of it.
    if (Vx::Platform::CurrentMachine().threads != nullptr) SetEvent(done);
  });
}
