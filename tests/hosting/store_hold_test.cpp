#include "hosting/store_hold.h"

#include "hosting/fake_service.h"
#include "hosting/loaded_module.h"

namespace Vx::Hosting {
namespace {

using Platform::UniqueHandle;

constexpr wchar_t kName[] = L"Global\\18CC6446-1DB5-4D23-8F2B-441BA13883D6";

TEST(NeedsServicesMutexTest, OutsideTheServicesSessionForTheMachinesStore) {
  static constexpr struct {
    const char* name;
    std::uint32_t session;
    const wchar_t* programData;
    const wchar_t* machineData;
    bool needed;
  } kCases[] = {
      {"a service", 0, L"C:\\ProgramData", L"C:\\ProgramData", false},
      {"an administrator's session", 1, L"C:\\ProgramData", L"C:\\ProgramData", true},
      {"another spelling", 2, L"c:\\programdata\\", L"C:\\ProgramData", true},
      {"a private store", 1, L"C:\\Temp\\vxhost-1", L"C:\\ProgramData", false},
      {"a folder of a longer name", 1, L"C:\\ProgramData2", L"C:\\ProgramData", false},
      {"the machine's folder is not known", 1, L"C:\\Temp\\vxhost-1", L"", true},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(NeedsServicesMutex(c.session, c.programData, c.machineData), c.needed) << c.name;
  }
}

// A private store that this process treats as the machine's.
class ServicesMutexTest : public ::testing::Test {
 protected:
  Tests::PrivateStore store;
  Tests::EnvironmentOverride machine{L"ALLUSERSPROFILE",
                                     store.FilePath().substr(0, store.FilePath().find(L"\\Vx\\"))};
};

std::string NotKept(const std::string& why) {
  return "the machine's store cannot be locked against services: "
         "Global\\18CC6446-1DB5-4D23-8F2B-441BA13883D6 " +
         why + "; run as administrator, or use --private-store";
}

TEST_F(ServicesMutexTest, AWriterRefusesANameOfAnotherKindOfObjectAndAReaderGoesOn) {
  const UniqueHandle taken(CreateEventW(nullptr, TRUE, FALSE, kName));
  const LoadedModule module(Tests::ModulePath());
  EXPECT_THAT([&] { module.NewService(); },
              ThrowsMessage<std::runtime_error>(
                  NotKept("is an object of another kind, made by another program")));
  EXPECT_EQ(ServicesMutexFor(StoreUse::Read), nullptr);
}

TEST_F(ServicesMutexTest, AWriterRefusesAnObjectThatThisAccountMayNotOpen) {
  // An empty access list admits no account, not even the owner.
  SECURITY_DESCRIPTOR closed;
  ACL none;
  InitializeSecurityDescriptor(&closed, SECURITY_DESCRIPTOR_REVISION);
  InitializeAcl(&none, sizeof none, ACL_REVISION);
  SetSecurityDescriptorDacl(&closed, TRUE, &none, FALSE);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, &closed, FALSE};
  const UniqueHandle taken(CreateMutexW(&attributes, FALSE, kName));
  ASSERT_NE(taken, nullptr);
  EXPECT_THAT([] { ServicesMutexFor(StoreUse::Write); },
              ThrowsMessage<std::runtime_error>(NotKept("cannot be opened, error 5")));
}

TEST_F(ServicesMutexTest, ACallThatCanUseTheStoreHoldsItAndMakesNone) {
  FakeService service;
  std::vector<bool> free;  // whether another thread could take the mutex
  service.onUse = [&] { free.push_back(Tests::IsFree(kName)); };
  ServiceSession session(&service);
  session.Slots()->power_event_task(7);
  EXPECT_EQ(UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, kName)), nullptr);
  free.clear();
  const UniqueHandle ofAService(CreateMutexW(nullptr, FALSE, kName));
  EXPECT_EQ(session.Execute(22, L"{}", L"client").code, 7U);
  session.Slots()->power_event_task(7);
  session.Slots()->oobe_event_task();
  session.Slots()->OnSessionChange(5);
  EXPECT_THAT(free, ElementsAre(false, false, false, false));
  service.onUse();
  EXPECT_TRUE(free.back());
}

TEST_F(ServicesMutexTest, NoProgramWithAStoreOfItsOwnTakesIt) {
  const Tests::PrivateStore own;
  const UniqueHandle ofAService(CreateMutexW(nullptr, FALSE, kName));
  EXPECT_EQ(ServicesMutexFor(StoreUse::Write), nullptr);
}

}  // namespace
}  // namespace Vx::Hosting
