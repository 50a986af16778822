#include "storage/system_mutex.h"

#include "platform/kernel_objects.h"
#include "simulator/fault_injection.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Storage {

namespace {

// The process ID keeps concurrent test processes apart.
std::wstring Name(const wchar_t* test) {
  return std::wstring(L"vx-") + test + L"-" + std::to_wstring(GetCurrentProcessId());
}

TEST(SystemMutex, KeepsOthersOutUntilItIsUnlockedOrDestroyed) {
  const std::wstring name = Name(L"exclusion");
  {
    SystemMutex mutex(name);
    EXPECT_TRUE(Tests::IsFree(name));
    mutex.lock();
    EXPECT_FALSE(Tests::IsFree(name));
    mutex.unlock();
    EXPECT_TRUE(Tests::IsFree(name));
    EXPECT_THROW(mutex.unlock(), system_mutex_exception);
  }
  const SystemMutex other(name);  // keeps the kernel object and its state
  {
    SystemMutex mutex(name);
    mutex.lock();
  }
  EXPECT_TRUE(Tests::IsFree(name));
}

TEST(SystemMutex, ReportsANameThatItCannotUseOnceAndTriesAgain) {
  Simulator::FaultInjection faults;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { faults.Install(machine); });
  const std::wstring name = Name(L"taken");
  const std::wstring start = L"warning|SystemMutex - ";
  Platform::UniqueHandle event;
  const std::pair<std::function<void()>, std::wstring> cases[] = {
      {[&] { event.reset(CreateEventW(nullptr, TRUE, FALSE, name.c_str())); },
       start + L"another program has given the name " + name +
           L" to an object that is not a mutex. The shared store cannot be used until that object "
           L"is gone."},
      {[&] { faults.FailNamed("KernelObjects.MakeMutex"); },
       start + L"Windows denies access to the mutex " + name +
           L", which another program has made. The shared store cannot be used until that mutex is "
           L"gone."},
  };
  for (const auto& [take, line] : cases) {
    const Tests::LogCapture log;
    for (std::size_t taken = 1; taken <= 2; ++taken) {
      take();
      for (int use = 0; use < 3; ++use) EXPECT_THROW(SystemMutex{name}, system_mutex_exception);
      EXPECT_EQ(log.Lines(), std::vector(taken, line));
      event.reset();
      faults.Clear();
      EXPECT_NO_THROW(SystemMutex{name});
    }
  }
}

TEST(SystemMutex, IsOwnedAfterItsHolderDied) {
  SystemMutex mutex(Name(L"abandoned"));
  std::thread([&] {
    const Platform::UniqueHandle handle(CreateMutexW(nullptr, FALSE, Name(L"abandoned").c_str()));
    WaitForSingleObject(handle.get(), INFINITE);
  }).join();
  const Tests::LogCapture log;
  mutex.lock();
  EXPECT_FALSE(Tests::IsFree(Name(L"abandoned")));
  mutex.unlock();
  mutex.lock();
  EXPECT_THAT(log.Lines(), testing::ElementsAre(
                               L"warning|SystemMutex::lock - the last holder of the mutex ended "
                               L"without releasing it"));
  mutex.unlock();
}

TEST(SystemMutex, ThrowsTheDocumentedErrorOfEachOperation) {
  Simulator::FaultInjection faults;
  const Platform::MachineScope scope([&](Platform::Machine& machine) { faults.Install(machine); });
  static constexpr struct {
    const char* call;
    const char* message;
    std::uint32_t code;
  } kCases[] = {
      {"KernelObjects.MakeMutex", "SystemMutex::SystemMutex - failed to create mutex", 0},
      {"KernelObjects.LockMutex", "SystemMutex::lock - failed to gain ownership of mutex", 2},
      {"KernelObjects.UnlockMutex",
       "SystemMutex::unlock - something went wrong trying to free the mutex", 3},
  };
  for (const auto& c : kCases) {
    faults.FailNamed(c.call);
    const auto use = [] {
      SystemMutex mutex(Name(L"faults"));
      mutex.lock();
      mutex.unlock();
    };
    EXPECT_THAT(use, Throws<system_mutex_exception>(
                         AllOf(Property(&system_mutex_exception::code, c.code),
                               Property(&system_mutex_exception::what, StrEq(c.message)))));
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
