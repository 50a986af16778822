#include "platform/thread.h"

#include <cerrno>
#include <memory>
#include <utility>

#include <windows.h>

#include <process.h>

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

// What a new thread takes over: its work, and a reference that keeps this module loaded until the
// thread's last instruction, which then lies in the system and not here.
struct Starter {
  std::function<void()> body;
  HMODULE module = nullptr;
};

unsigned __stdcall Run(void* argument) {
  auto* starter = static_cast<Starter*>(argument);
  HMODULE module = starter->module;
  starter->body();
  // The callable may own handles and documents: they go while the module is certainly loaded, and
  // before the call below, which runs no destructor of this frame.
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
      return Result<UniqueHandle>::Failure(EAGAIN);
    }
    // The runtime hands the handle out as a number.
    const std::uintptr_t raw = _beginthreadex(nullptr, 0, &Run, starter.get(), 0, nullptr);
    if (raw == 0) {
      const int error = errno;
      FreeLibrary(starter->module);
      return Result<UniqueHandle>::Failure(static_cast<ErrorCode>(error));
    }
    static_cast<void>(starter.release());                   // the thread deletes it
    return UniqueHandle(reinterpret_cast<RawHandle>(raw));  // NOLINT(performance-no-int-to-ptr)
  }
};

}  // namespace

Threads& WindowsThreads() {
  static RealThreads threads;
  return threads;
}

}  // namespace Vx::Platform
