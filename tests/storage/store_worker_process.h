#pragma once

#include "support/test.h"

namespace Vx::Tests {

inline constexpr DWORD kWorkerDeadline = 60'000;  // milliseconds

class StoreWorker {
 public:
  explicit StoreWorker(const std::wstring& arguments)
      : process(StartProcess(L"\"" + BuiltFile(L"store_worker.exe") + L"\" " + arguments).process) {
  }
  ~StoreWorker() { Kill(); }

  void Kill() {
    TerminateProcess(process.get(), 9);
    WaitForSingleObject(process.get(), kWorkerDeadline);
  }

  DWORD ExitCode() {
    DWORD code = STILL_ACTIVE;
    EXPECT_EQ(WaitForSingleObject(process.get(), kWorkerDeadline), WAIT_OBJECT_0);
    GetExitCodeProcess(process.get(), &code);
    return code;
  }

 private:
  Platform::UniqueHandle process;
};

}  // namespace Vx::Tests
