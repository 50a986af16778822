#include "hosting/loaded_module.h"

#include "platform/thread.h"
#include "support/test.h"

namespace Vx::Hosting {
namespace {

// NOLINTNEXTLINE(performance-no-int-to-ptr): must not be dereferenced
const auto* const kWild = reinterpret_cast<const wchar_t*>(std::uintptr_t{0x10});

TEST(ModuleLogTest, ReadsNoMemberBeyondTheSizeThatAnOlderModuleStates) {
  VxLogRecord record{};
  record.size = offsetof(VxLogRecord, target);
  record.kind = L"power";
  record.decision = L"dropped";
  record.subscription = L"hash";
  record.target = record.package = record.client = kWild;
  record.number = 7;
  VxLogLine line{sizeof line, 1, 0, L"p", L"c", L"t", &record};
  LogLine copy = LineOf(line);
  EXPECT_EQ(copy.level + copy.provider + copy.caller + copy.message, L"WARNINGpct");
  ASSERT_TRUE(copy.record);
  EXPECT_EQ(copy.record->kind + copy.record->decision + copy.record->reason +
                copy.record->subscription + copy.record->target + copy.record->client,
            L"powerdroppedhash");
  EXPECT_EQ(copy.record->number, 0U);

  line.size = offsetof(VxLogLine, text) + 1;
  line.text = kWild;
  line.level = 3;  // from a newer module
  copy = LineOf(line);
  EXPECT_EQ(copy.level + copy.provider + copy.caller + copy.message, L"ERRORpc");
  EXPECT_FALSE(copy.record);
}

TEST(ModuleLogTest, PassesNoLineOnceItHasEndedWhileAThreadLogs) {
  const Tests::PrivateStore store;
  const LoadedModule module(Tests::ModulePath());
  ServiceSession session = module.NewService();
  std::atomic<bool> ending{false};
  std::atomic<bool> listening{false};
  std::atomic<int> lines{0};
  std::atomic<int> late{0};
  Platform::Thread logging([&] {
    while (!ending) session.Execute(99, L"{}", L"client");
  });
  for (int i = 0; i < 50; ++i) {
    listening = true;
    {
      const int before = lines;
      const ModuleLog log(module, [&](const VxLogLine&) { ++(listening ? lines : late); });
      const ULONGLONG end = GetTickCount64() + 10'000;
      while (lines == before && GetTickCount64() < end) Sleep(0);
      EXPECT_GT(lines, before);
    }
    listening = false;
    Sleep(1);
  }
  ending = true;
  logging.Join();
  EXPECT_EQ(late, 0);
}

}  // namespace
}  // namespace Vx::Hosting
