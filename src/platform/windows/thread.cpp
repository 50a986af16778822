#include "platform/thread.h"

#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>

#include <windows.h>

#include <process.h>

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

// The state that a new thread takes over: its work, and a reference that keeps this module loaded
// until the thread has left its code.
struct Starter {
  std::function<void()> body;
  HMODULE module = nullptr;
};

unsigned __stdcall Run(void* argument) {
  auto* starter = static_cast<Starter*>(argument);
  HMODULE module = starter->module;
  starter->body();
  // Frees the callable while the module is still loaded. The next call runs no destructors.
  delete starter;
  FreeLibraryAndExitThread(module, 0);
}

class RealThreads final : public Threads {
 public:
  Result<UniqueHandle> Start(std::function<void()> body) override {
    auto starter = std::make_unique<Starter>();
    starter->body = std::move(body);
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<const wchar_t*>(&Run), &starter->module) == 0) {
      return Failure(EAGAIN);
    }
    const std::uintptr_t raw = _beginthreadex(nullptr, kWorkerStack, &Run, starter.get(),
                                              STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (raw == 0) {
      const int error = errno;
      FreeLibrary(starter->module);
      return Failure(static_cast<ErrorCode>(error));
    }
    static_cast<void>(starter.release());                   // owned by the thread
    return UniqueHandle(reinterpret_cast<RawHandle>(raw));  // NOLINT(performance-no-int-to-ptr)
  }

  // Also cancels an open that waits for another program's opportunistic lock. Needs
  // THREAD_TERMINATE, which a new thread's handle has.
  void CancelIo(RawHandle thread) override { CancelSynchronousIo(thread); }
};

}  // namespace

Threads& WindowsThreads() {
  static RealThreads threads;
  return threads;
}

}  // namespace Vx::Platform
