#include "vxhost/common/console.h"

#include "platform/thread.h"
#include "support/test.h"

extern "C" decltype(&SetConsoleCtrlHandler) __imp_SetConsoleCtrlHandler;  // NOLINT: the linker's

namespace Vx::Hosting::Tool {
namespace {

PHANDLER_ROUTINE handler = nullptr;
BOOL WINAPI Register(PHANDLER_ROUTINE routine, BOOL add) {
  EXPECT_TRUE(add);
  handler = routine;
  return TRUE;
}

// When a console closes, Windows ends the process as soon as the handler returns.
TEST(StopRequestTest, AClosingConsoleWaitsForTheOrderlyEndAndCtrlCDoesNot) {
  const Tests::ImportOverride windows(__imp_SetConsoleCtrlHandler, &Register);
  for (const DWORD kind :
       {DWORD{CTRL_C_EVENT}, DWORD{CTRL_CLOSE_EVENT}, DWORD{CTRL_SHUTDOWN_EVENT}}) {
    SCOPED_TRACE(kind);
    std::atomic<bool> returned = false;
    std::optional<StopRequest> request(std::in_place);
    Platform::Thread console([&] {
      EXPECT_TRUE(handler(kind));
      returned = true;
    });
    request->Wait(10'000);
    if (kind != CTRL_C_EVENT) {
      Sleep(50);
      EXPECT_FALSE(returned);
      request.reset();
    }
    console.Join();
    EXPECT_TRUE(returned);
  }
}

}  // namespace
}  // namespace Vx::Hosting::Tool
