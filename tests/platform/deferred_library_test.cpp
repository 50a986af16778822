#include "platform/windows/deferred_library.h"

#include "support/test.h"

namespace Vx::Platform {
namespace {

using Tests::ThreadActsAsAnother;

struct Seen {
  int loads = 0;
  int loadsAsUser = 0;
};

// The loader calls this on the loading thread, after opening the file.
void CALLBACK OnLibrary(ULONG /*reason*/, const void* /*data*/, void* context) {
  auto& seen = *static_cast<Seen*>(context);
  ++seen.loads;
  if (ThreadActsAsAnother()) ++seen.loadsAsUser;
}

TEST(DeferredLibraryTest, LoadsAsTheProcessInAThreadThatActsAsAUser) {
  using Notify = void CALLBACK(ULONG, const void*, void*);
  auto* watch = SystemFunction<LONG NTAPI(ULONG, Notify*, void*, void**)>(
      L"ntdll.dll", "LdrRegisterDllNotification");
  auto* unwatch = SystemFunction<LONG NTAPI(void*)>(L"ntdll.dll", "LdrUnregisterDllNotification");
  ASSERT_TRUE(watch != nullptr && unwatch != nullptr);
  constexpr wchar_t kUnused[] = L"mscms.dll";
  ASSERT_EQ(GetModuleHandleW(kUnused), nullptr);
  DeferredLibrary library(kUnused);
  DeferredLibrary absent(L"no such library.dll");
  Seen seen;
  void* cookie = nullptr;
  ASSERT_EQ(watch(0, OnLibrary, &seen, &cookie), 0);
  ASSERT_NE(ImpersonateSelf(SecurityImpersonation), 0);
  auto* function = library.Find<void()>("OpenColorProfileW");
  auto* none = absent.Find<void()>("OpenColorProfileW");
  const DWORD error = GetLastError();
  const bool restored = ThreadActsAsAnother();
  RevertToSelf();
  unwatch(cookie);
  EXPECT_NE(function, nullptr);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(error, DWORD{ERROR_MOD_NOT_FOUND});
  EXPECT_TRUE(restored);
  EXPECT_GT(seen.loads, 0);
  EXPECT_EQ(seen.loadsAsUser, 0);
}

}  // namespace
}  // namespace Vx::Platform
