#include "platform/kernel_objects.h"

#include <windows.h>

#include "platform/windows/capabilities.h"

namespace Vx::Platform {

namespace {

class RealKernelObjects final : public KernelObjects {
 public:
  Result<UniqueHandle> MakeMutex(const std::wstring& name) override {
    return Adopt(CreateMutexW(nullptr, FALSE, NameOrNone(name)));
  }

  Result<Locked> LockMutex(RawHandle mutex) override {
    const DWORD code = WaitForSingleObject(mutex, INFINITE);
    if (code == WAIT_OBJECT_0) return Locked::Free;
    if (code == WAIT_ABANDONED) return Locked::Abandoned;
    return Failure(GetLastError());
  }

  ErrorCode UnlockMutex(RawHandle mutex) override {
    return ReleaseMutex(mutex) != 0 ? 0 : GetLastError();
  }

  Result<UniqueHandle> MakeManualEvent(const std::wstring& name) override {
    return Adopt(CreateEventW(nullptr, TRUE, FALSE, NameOrNone(name)));
  }

  ErrorCode Signal(RawHandle event) override { return SetEvent(event) != 0 ? 0 : GetLastError(); }

 private:
  static const wchar_t* NameOrNone(const std::wstring& name) {
    return name.empty() ? nullptr : name.c_str();
  }

  static Result<UniqueHandle> Adopt(HANDLE raw) {
    if (raw == nullptr) return Failure(GetLastError());
    return UniqueHandle(raw);
  }
};

}  // namespace

KernelObjects& WindowsKernelObjects() {
  static RealKernelObjects objects;
  return objects;
}

UniqueHandle MakeUnnamedEvent() {
  return CurrentMachine().kernelObjects->MakeManualEvent({}).ValueOr(nullptr);
}

}  // namespace Vx::Platform
