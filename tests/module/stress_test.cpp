// Several hosts at once: services are made, started, used and destroyed in quick succession on the
// module itself, through its export and its slots, while their background work runs.

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include <gtest/gtest.h>

#include "host/vx_service.h"
#include "support/handle_gauge.h"
#include "support/temp_folder.h"

namespace Vx::Tests {
namespace {

using Tessel::Server::Services::ClientContext;
using Tessel::Server::Services::VxService;

constexpr int kHosts = 3;
constexpr int kServicesPerHost = 12;
constexpr int kCallersPerService = 2;
constexpr DWORD kLongestEnd = 30'000;  // milliseconds

// The system's own threads come and go; what a life leaves behind is there once for each of them.
constexpr std::uintptr_t kSystemsOwn = 16;

std::wstring ModulePath() {
  std::wstring path(32'767, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  path.resize(path.rfind(L'\\'));
  path.resize(path.rfind(L'\\'));
  return path + L"\\bin\\OrvaneService.dll";
}

class StressTest : public testing::Test {
 protected:
  void SetUp() override {
    module = LoadLibraryW(ModulePath().c_str());
    ASSERT_NE(module, nullptr);
    factory = reinterpret_cast<Factory>(
        reinterpret_cast<void*>(GetProcAddress(module, "VxCreateService")));
    ASSERT_NE(factory, nullptr);
  }
  void TearDown() override {
    if (module != nullptr) FreeLibrary(module);
  }

  // Answers are not the point, but each must be one, and its buffer is given back.
  static void Command(VxService& service, std::uint32_t id, const wchar_t* request) {
    ClientContext* context = nullptr;
    EXPECT_EQ(service.CreateClientContext(L"stress", &context), 0U);
    wchar_t* response = nullptr;
    EXPECT_EQ(service.ExecuteCommand(context, id, request, &response, nullptr), 0U);
    EXPECT_NE(response, nullptr);
    service.FreeResponse(response);
    service.ReleaseClientContext(&context);
  }

  static void Use(VxService& service, int turn) {
    Command(service, 22, L"{}");
    Command(service, 9, L"{\"powerEventType\":7}");
    service.power_event_task(turn % 2 == 0 ? 7 : 18);
    Command(service, 19, L"{\"powerEventType\":7}");
    service.OnSessionChange(turn % 2 == 0 ? 5 : 6);
    Command(service, 20, L"{}");
  }

  // One life. The callers end before the service does, as the host guarantees; the service's own
  // threads and deliveries do not.
  void Live(int turn) {
    VxService* service = factory();
    ASSERT_NE(service, nullptr);
    service->Start();
    std::vector<std::thread> callers;
    callers.reserve(kCallersPerService);
    for (int caller = 0; caller < kCallersPerService; ++caller) {
      callers.emplace_back([=] { Use(*service, turn + caller); });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(service->Destroy(1), service);
    ++lives;
  }

  void Round() {
    std::vector<std::thread> hosts;
    hosts.reserve(kHosts);
    for (int host = 0; host < kHosts; ++host) {
      hosts.emplace_back([this] {
        for (int turn = 0; turn < kServicesPerHost; ++turn) Live(turn);
      });
    }
    for (auto& host : hosts) host.join();
  }

  // The lowest that the gauge comes to once the detached threads have gone.
  static std::uintptr_t RestingGauge(std::uintptr_t goal) {
    const DWORD start = GetTickCount();
    std::uintptr_t gauge = HandleGauge();
    while (gauge > goal && GetTickCount() - start < kLongestEnd) {
      Sleep(20);
      gauge = HandleGauge();
    }
    return gauge;
  }

  using Factory = VxService* (*)();
  PrivateStore store;
  HMODULE module = nullptr;
  Factory factory = nullptr;
  std::atomic<int> lives{0};
};

TEST_F(StressTest, ServicesComeAndGoWithEverythingInFlightAndLeaveNoHandle) {
  Live(0);  // what the system keeps for a process comes first
  Round();
  Sleep(1000);
  const std::uintptr_t before = HandleGauge();
  Round();
  EXPECT_EQ(lives, 1 + 2 * kHosts * kServicesPerHost);
  EXPECT_LE(RestingGauge(before), before + kSystemsOwn);
}

// A thread that ran on in an unloaded module would end this process.
TEST_F(StressTest, TheModuleStaysUntilItsLastThreadHasGone) {
  for (int turn = 0; turn < 5; ++turn) {
    VxService* service = factory();
    ASSERT_NE(service, nullptr);
    service->Start();
    service->Destroy(1);
  }
  FreeLibrary(module);
  module = nullptr;
  const std::wstring path = ModulePath();
  const DWORD start = GetTickCount();
  while (GetModuleHandleW(path.c_str()) != nullptr && GetTickCount() - start < kLongestEnd) {
    Sleep(20);
  }
  EXPECT_EQ(GetModuleHandleW(path.c_str()), nullptr);
}

}  // namespace
}  // namespace Vx::Tests
