#include <windows.h>

#include "platform/machine.h"
#include "platform/thread.h"

// Starts a detached worker that ends when `go` is signalled. Its last action signals `done`.
extern "C" void StartWaitingWorker(HANDLE go, HANDLE done) {
  Vx::Platform::StartDetached([go, done] {
    WaitForSingleObject(go, 20'000);
    // Uses code and data of this module after its owner has released it.
    if (Vx::Platform::CurrentMachine().threads != nullptr) SetEvent(done);
  });
}
