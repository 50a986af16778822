#include "bod/born_on_date_manager.h"

#include "support/test.h"

#include <oleauto.h>

#include "simulator/simulated_firmware.h"
#include "simulator/simulated_registry.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "support/memory_shortage.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using Simulator::SimulatedFirmware;

constexpr auto kDenied = static_cast<std::int32_t>(0x80041003);
constexpr wchar_t kStats[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\OOBE\\Stats";

class BornOnDateManagerTest : public ::testing::Test {
 protected:
  BornOnDateManagerTest() { clock.SetUtcFileTime(*FileTimeOf({2024, 7, 0, 15, 10, 20, 30, 0})); }

  void Hold(std::string block) {
    block.resize(128);
    firmware.SetWarrantyBlock(std::move(block));
  }

  std::string SetOver(std::string block) {
    Hold(std::move(block));
    manager.conditionally_set("");
    return firmware.BornOnDate();
  }

  static std::string Stored() {
    const auto document = Storage::CapDataStore().readDocument("OrvaneServiceDocument");
    const auto element = document.Find("born_on_date");
    return element ? std::string(element->AsText().value_or("not a text")) : "missing";
  }

  Tests::PrivateStore store;
  Simulator::VirtualClock clock;
  SimulatedFirmware firmware;
  Simulator::SimulatedRegistry registry;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    machine.clock = &clock;
    machine.com = &firmware;
    machine.registry = &registry;
  }};
  const Logging::TraceLogger& logger = *Logging::LogManager::GetLogger();
  BornOnDateManager manager;
};

TEST_F(BornOnDateManagerTest, TakesTheDayThatSetUpEndedOnlyWhenItIsEarlier) {
  EXPECT_EQ(SetOver(""), "20240715") << "set-up left no record";
  static constexpr struct {
    const char* name = nullptr;
    SYSTEMTIME stamp{};
    const char* written = nullptr;
    std::size_t size = sizeof(SYSTEMTIME);  // bytes in the store
    DWORD type = REG_BINARY;
  } kCases[] = {
      {"before", {2023, 4, 4, 6, 23, 59, 59, 0}, "20230406"},
      {"today, whatever its time of day", {2024, 7, 1, 15, 23, 59, 59, 0}, "20240715"},
      {"clock set back since then", {2025, 1, 3, 1, 0, 0, 0, 0}, "20240715"},
      {"no year", {0, 4, 4, 6, 0, 0, 0, 0}, "20240715"},
      {"not a day of its month", {2023, 2, 4, 30, 0, 0, 0, 0}, "20240715"},
      {"empty", {}, "20240715", 0},
      {"one byte short", {2023, 4, 4, 6, 0, 0, 0, 0}, "20240715", 15},
      {"more after it", {2023, 4, 4, 6, 0, 0, 0, 0}, "20230406", 4096},
      {"another type", {2023, 4, 4, 6, 0, 0, 0, 0}, "20230406", 16, REG_SZ},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Platform::RegistryValue value{c.type, std::vector<std::byte>(4096)};
    std::memcpy(value.data.data(), &c.stamp, sizeof c.stamp);
    value.data.resize(c.size);
    registry.Set(kStats, L"EndTimeStamp", value);
    EXPECT_EQ(SetOver(""), c.written);
  }
}

TEST_F(BornOnDateManagerTest, WritesOverAValidDateIfToldNotToLook) {
  Hold("20200102");
  BornOnDateManager writer(false);
  EXPECT_FALSE(writer.born_on_date_has_been_set());
  writer.conditionally_set("20240229");
  EXPECT_EQ(firmware.BornOnDate(), "20240229");
  writer.conditionally_set("00000000");
  EXPECT_FALSE(manager.born_on_date_has_been_set());
}

TEST_F(BornOnDateManagerTest, WhateverTheFirmwaresOwnCodeIsItIsNoFailure) {
  firmware.SetReturnCode(3);
  manager.conditionally_set("20240229");
  EXPECT_EQ(manager.get_born_on_date().get(), "20240229");
  firmware.Fail("Get rwReturnCode", kDenied);
  SetBornOnDate(logger);
  EXPECT_EQ(firmware.BornOnDate(), "20240229");
  EXPECT_EQ(Stored(), "20240229");
}

TEST_F(BornOnDateManagerTest, RefusesADateThatTheFirmwareCannotTake) {
  for (const char* date : {"240229", "20240230", "0000000"}) {
    EXPECT_THAT([&] { manager.conditionally_set(date); },
                ThrowsMessage<std::invalid_argument>(
                    "BornOnDateManager::conditionally_set - date was invalid"));
  }
  EXPECT_EQ(firmware.BornOnDate(), "");
}

// An unreadable date may still be valid, and a write would destroy it. vx_bios_wmi_test.cpp covers
// the other replies that cannot be read.
TEST_F(BornOnDateManagerTest, LeavesFirmwareAndStoreAloneWhileTheDateCannotBeReadWhole) {
  firmware.Replace(SimulatedFirmware::Digits::Six);
  Hold("230101");
  const Tests::LogCapture log;
  firmware.SetTamper([](const std::wstring& property, VARIANT& data) {
    SAFEARRAYBOUND half{64, 0};
    if (property == L"Data") SafeArrayRedim(V_ARRAY(&data), &half);
  });
  SetBornOnDate(logger);
  EXPECT_EQ(firmware.BornOnDate(), "230101");
  EXPECT_EQ(Stored(), "missing");
  EXPECT_EQ(log.Lines().back(),
            LR"(error|OrvaneService::SetBornOnDate threw system error "VxBiosWmi::ExecuteCommand )"
            LR"(failure - Command: BIOS WMI Read, Command type: Warranty: Unknown error" with )"
            L"status -2147024883");
  firmware.SetTamper(nullptr);
  SetBornOnDate(logger);
  EXPECT_EQ(firmware.BornOnDate(), "230101");
  EXPECT_EQ(Stored(), "230101");
}

TEST_F(BornOnDateManagerTest, LetsNoExceptionOutWhenMemoryRunsOutDuringAFailure) {
  firmware.Fail("ExecMethod", static_cast<std::int32_t>(0x80041003));
  for (const auto kind : {Tests::Shortage::Once, Tests::Shortage::Lasting}) {
    EXPECT_GT(Tests::FailEachAllocation(
                  kind, [&] { SetBornOnDate(logger); }, [&] { EXPECT_EQ(Stored(), "missing"); }),
              0U);
  }
}

TEST(BornOnDateSystemTimeTest, HoldsTheDateAndNothingElse) {
  const SYSTEMTIME six = BornOnDate("240229").get_as_system_time();
  const SYSTEMTIME expected{2024, 2, 0, 29, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(&six, &expected, sizeof six), 0);
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
