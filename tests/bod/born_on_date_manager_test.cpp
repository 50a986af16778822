#include "bod/born_on_date_manager.h"

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

#include <oleauto.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bod/set_born_on_date.h"
#include "platform/machine.h"
#include "simulator/simulated_firmware.h"
#include "simulator/simulated_registry.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "support/memory_shortage.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using Simulator::SimulatedFirmware;

constexpr wchar_t kStats[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\OOBE\\Stats";

class BornOnDateManagerTest : public ::testing::Test {
 protected:
  BornOnDateManagerTest() { clock.SetUtcFileTime(*FileTimeOf({2024, 7, 0, 15, 10, 20, 30, 0})); }

  // Returns what the firmware holds after setting an empty date where it held `block` before.
  std::string SetOver(std::string block) {
    block.resize(128);
    firmware.SetWarrantyBlock(std::move(block));
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
    std::size_t size = sizeof(SYSTEMTIME);  // of the stored value
    DWORD type = REG_BINARY;
  } kCases[] = {
      {"before", {2023, 4, 4, 6, 23, 59, 59, 0}, "20230406"},
      {"today, whatever its time of day", {2024, 7, 1, 15, 23, 59, 59, 0}, "20240715"},
      {"the clock was set back since", {2025, 1, 3, 1, 0, 0, 0, 0}, "20240715"},
      {"no year", {0, 4, 4, 6, 0, 0, 0, 0}, "20240715"},
      {"no day of its month", {2023, 2, 4, 30, 0, 0, 0, 0}, "20240715"},
      {"empty", {}, "20240715", 0},
      {"one byte short", {2023, 4, 4, 6, 0, 0, 0, 0}, "20240715", 15},
      {"more behind it", {2023, 4, 4, 6, 0, 0, 0, 0}, "20230406", 4096},
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

TEST_F(BornOnDateManagerTest, NeverWritesOverAValidDateUnlessToldNotToLook) {
  EXPECT_EQ(SetOver("20200102"), "20200102");
  manager.conditionally_set("00000000");
  EXPECT_EQ(firmware.BornOnDate(), "20200102");
  for (const auto& request : firmware.Requests()) EXPECT_EQ(request.command, 1);

  BornOnDateManager writer(false);
  EXPECT_FALSE(writer.born_on_date_has_been_set());
  writer.conditionally_set("20240229");
  EXPECT_EQ(firmware.BornOnDate(), "20240229");
  writer.conditionally_set("00000000");
  EXPECT_FALSE(manager.born_on_date_has_been_set());
}

TEST_F(BornOnDateManagerTest, WritesWhereTheFirmwareHoldsAnythingButADate) {
  static const std::string kBlocks[] = {
      std::string(128, '7'), std::string("2024\000229", 8), "20230229", "2024-2-9", "00000000",
  };
  for (const auto& block : kBlocks) EXPECT_EQ(SetOver(block).substr(0, 8), "20240715") << block;
}

TEST_F(BornOnDateManagerTest, AFirmwareCodeOfItsOwnIsNoFailure) {
  firmware.SetReturnCode(3);
  manager.conditionally_set("20240229");
  EXPECT_EQ(manager.get_born_on_date().get(), "20240229");
}

TEST_F(BornOnDateManagerTest, RefusesADateThatTheFirmwareCannotTake) {
  try {
    manager.conditionally_set("240229");
    ADD_FAILURE() << "six digits were taken by a firmware of eight";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "BornOnDateManager::conditionally_set - date was invalid");
  }
  EXPECT_EQ(firmware.BornOnDate(), "");
}

TEST_F(BornOnDateManagerTest, AnUnreadableFirmwareMeansSixDigitsAndStoresNoDate) {
  firmware.SetTamper([](const std::wstring& property, VARIANT& value) {
    if (property == L"Data") VariantClear(&value);
  });
  EXPECT_EQ(manager.get_num_bod_digits(), BODFormat::SixDigits);
  SetBornOnDate(logger);
  EXPECT_EQ(Stored(), "");
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
