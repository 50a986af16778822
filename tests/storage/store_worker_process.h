#pragma once

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include <windows.h>

#include "platform/unique_handle.h"
#include "support/probe.h"

namespace Vx::Tests {

inline constexpr DWORD kWorkerDeadline = 60'000;  // milliseconds

// A running store_worker. The destructor kills it if it is still running.
class StoreWorker {
 public:
  explicit StoreWorker(const std::wstring& arguments) {
    std::wstring line = L"\"" + BuiltFile(L"store_worker.exe") + L"\" " + arguments;
    STARTUPINFOW start{};
    start.cb = sizeof start;
    PROCESS_INFORMATION started{};
    // Under Wine 1359 says that something killed the new process before any of its code ran.
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start,
                        &started)) {
      throw std::runtime_error("store_worker.exe does not start: error " +
                               std::to_string(GetLastError()));
    }
    process.reset(started.hProcess);
    const Platform::UniqueHandle thread(started.hThread);
  }
  StoreWorker(const StoreWorker&) = delete;
  StoreWorker& operator=(const StoreWorker&) = delete;
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
