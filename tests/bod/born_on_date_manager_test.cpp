#include "bod/born_on_date_manager.h"

#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <windows.h>

#include <oleauto.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/machine.h"
#include "simulator/simulated_firmware.h"
#include "simulator/virtual_clock.h"
#include "support/private_local_machine.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using Simulator::SimulatedFirmware;

constexpr wchar_t kStats[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\OOBE\\Stats";

std::vector<BYTE> BytesOf(const SYSTEMTIME& time) {
  std::vector<BYTE> bytes(sizeof time);
  std::memcpy(bytes.data(), &time, sizeof time);
  return bytes;
}

class BornOnDateManagerTest : public ::testing::Test {
 protected:
  explicit BornOnDateManagerTest(
      SimulatedFirmware::Digits digits = SimulatedFirmware::Digits::Eight)
      : firmware(digits) {
    clock.SetUtcFileTime(*FileTimeOf({2024, 7, 0, 15, 10, 20, 30, 0}));
  }

  Simulator::VirtualClock clock;
  SimulatedFirmware firmware;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    machine.clock = &clock;
    machine.com = &firmware;
  }};
  void SetEndTimeStamp(const std::vector<BYTE>& bytes, DWORD type = REG_BINARY) {
    registry.Set(kStats, L"EndTimeStamp", type, bytes);
  }

  Tests::PrivateLocalMachine registry;
  BornOnDateManager manager;
};

class SixDigitFirmwareTest : public BornOnDateManagerTest {
 protected:
  SixDigitFirmwareTest() : BornOnDateManagerTest(SimulatedFirmware::Digits::Six) {}
};

TEST_F(BornOnDateManagerTest, WritesTodayWhereSetUpLeftNoRecord) {
  manager.conditionally_set("");
  EXPECT_EQ(firmware.BornOnDate(), "20240715");
}

TEST_F(SixDigitFirmwareTest, GetsTheLastDigitOfTheYearAlone) {
  manager.conditionally_set("");
  EXPECT_EQ(firmware.BornOnDate(), "040715");
  EXPECT_EQ(firmware.Requests().back().size, 6);
}

TEST_F(BornOnDateManagerTest, TakesTheDayThatSetUpEndedOnlyWhenItIsEarlier) {
  static constexpr struct {
    const char* name;
    SYSTEMTIME stamp;
    const char* written;
  } kCases[] = {
      {"before", {2023, 4, 4, 6, 23, 59, 59, 0}, "20230406"},
      {"today, whatever its time of day", {2024, 7, 1, 15, 23, 59, 59, 0}, "20240715"},
      {"the clock was set back since", {2025, 1, 3, 1, 0, 0, 0, 0}, "20240715"},
      {"no year", {0, 4, 4, 6, 0, 0, 0, 0}, "20240715"},
      {"no month of any year", {2023, 13, 4, 6, 0, 0, 0, 0}, "20240715"},
      {"no day of its month", {2023, 2, 4, 30, 0, 0, 0, 0}, "20240715"},
      {"all ones", {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}, "20240715"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    firmware.SetWarrantyBlock(std::string(128, '\0'));
    SetEndTimeStamp(BytesOf(c.stamp));
    manager.conditionally_set("");
    EXPECT_EQ(firmware.BornOnDate(), c.written);
  }
}

TEST_F(BornOnDateManagerTest, ReadsTheTimeStampWhateverItsSizeAndType) {
  std::vector<BYTE> stamp = BytesOf({2023, 4, 4, 6, 7, 8, 9, 10});
  stamp.resize(4096, 0xEE);
  static constexpr std::size_t kSizes[] = {0, 1, 7, 8, 15, 16, 17, 4096};
  for (const std::size_t size : kSizes) {
    for (const DWORD type : {DWORD{REG_BINARY}, DWORD{REG_SZ}, DWORD{REG_DWORD}}) {
      SCOPED_TRACE(size);
      SetEndTimeStamp({stamp.begin(), stamp.begin() + static_cast<std::ptrdiff_t>(size)}, type);
      const SYSTEMTIME read = manager.get_windows_bod();
      const bool whole = size >= sizeof(SYSTEMTIME);
      const SYSTEMTIME expected{static_cast<WORD>(whole ? 2023 : 0),
                                static_cast<WORD>(whole ? 4 : 0),
                                0,
                                static_cast<WORD>(whole ? 6 : 0),
                                0,
                                0,
                                0,
                                0};
      EXPECT_EQ(std::memcmp(&read, &expected, sizeof read), 0);
    }
  }
}

TEST_F(BornOnDateManagerTest, NeverWritesOverAValidDate) {
  firmware.SetWarrantyBlock("20200102" + std::string(120, '\0'));
  EXPECT_TRUE(manager.born_on_date_has_been_set());
  manager.conditionally_set("20240229");
  manager.conditionally_set("");
  EXPECT_EQ(firmware.BornOnDate(), "20200102");
  for (const auto& request : firmware.Requests()) EXPECT_EQ(request.command, 1);
}

TEST_F(BornOnDateManagerTest, WritesWithoutLookingWhenToldTo) {
  firmware.SetWarrantyBlock("20200102" + std::string(120, '\0'));
  BornOnDateManager writer(false);
  EXPECT_FALSE(writer.born_on_date_has_been_set());
  writer.conditionally_set("20240229");
  EXPECT_EQ(firmware.BornOnDate(), "20240229");
}

TEST_F(BornOnDateManagerTest, WritesWhereTheFirmwareHoldsAnythingButADate) {
  static const std::string kBlocks[] = {
      std::string(128, '\0'),
      std::string(128, '7'),
      std::string(128, '\xFF'),
      std::string("2024\000229", 8) + std::string(120, '\0'),
      "20230229" + std::string(120, '\0'),
      "2024-2-9" + std::string(120, '\0'),
      "00000000" + std::string(120, '\0'),
  };
  for (const auto& block : kBlocks) {
    SCOPED_TRACE(block.substr(0, 8));
    firmware.SetWarrantyBlock(block);
    manager.conditionally_set("20240229");
    EXPECT_EQ(firmware.BornOnDate().substr(0, 8), "20240229");
  }
}

TEST_F(BornOnDateManagerTest, AFirmwareCodeOfItsOwnIsNoFailure) {
  firmware.SetReturnCode(3);
  manager.conditionally_set("20240229");
  EXPECT_EQ(manager.get_born_on_date().get(), "20240229");
}

TEST_F(BornOnDateManagerTest, ZerosAreWrittenAndAreNoDateAfterwards) {
  manager.conditionally_set("00000000");
  EXPECT_EQ(firmware.BornOnDate(), "00000000");
  EXPECT_FALSE(manager.born_on_date_has_been_set());
  manager.conditionally_set("");
  EXPECT_EQ(firmware.BornOnDate(), "20240715");
}

TEST_F(BornOnDateManagerTest, RefusesADateOfTheOtherLength) {
  try {
    manager.conditionally_set("240229");
    ADD_FAILURE() << "six digits were taken by a firmware of eight";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "BornOnDateManager::conditionally_set - date was invalid");
  }
  EXPECT_THROW(manager.conditionally_set("20240230"), std::invalid_argument);
  EXPECT_EQ(firmware.BornOnDate(), "");
}

TEST_F(SixDigitFirmwareTest, RefusesADateOfTheOtherLength) {
  EXPECT_THROW(manager.conditionally_set("20240229"), std::invalid_argument);
  manager.conditionally_set("240229");
  EXPECT_EQ(firmware.BornOnDate(), "240229");
}

TEST_F(BornOnDateManagerTest, AFailedCommandIsThrownWithItsResultAndName) {
  constexpr auto kDenied = static_cast<std::int32_t>(0x80041003);
  static const struct {
    const char* name;
    unsigned succeeding;  // commands before the one that fails
    const char* message;
  } kCases[] = {
      {"reading the date", 0,
       "VxBiosWmi::ExecuteCommand failure - Command: BIOS WMI Read, Command type: Warranty"},
      {"reading the features", 1,
       "VxBiosWmi::ExecuteCommand failure - Command: BIOS WMI Read, Command type: BIOS features"},
      {"writing", 2,
       "VxBiosWmi::ExecuteCommand failure - Command: BIOS WMI Write, Command type: Warranty"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    firmware.FailAfter("ExecMethod", c.succeeding, kDenied);
    try {
      manager.conditionally_set("");
      ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::error_code(kDenied, std::generic_category()));
      EXPECT_THAT(error.what(), ::testing::StartsWith(c.message));
    }
    EXPECT_EQ(firmware.LiveObjects(), 0);
    EXPECT_EQ(firmware.OpenInitializations(), 0);
    EXPECT_EQ(firmware.BornOnDate(), "");
  }
}

TEST_F(BornOnDateManagerTest, AUnreadableFeatureBlockMeansSixDigits) {
  firmware.SetTamper([](const std::wstring& property, VARIANT& value) {
    if (property == L"Data") VariantClear(&value);
  });
  EXPECT_EQ(manager.get_num_bod_digits(), BODFormat::SixDigits);
}

TEST_F(BornOnDateManagerTest, EveryOperationIsAConversationOfItsOwn) {
  manager.conditionally_set("");
  EXPECT_EQ(firmware.Connections(), 3);
  EXPECT_EQ(firmware.LiveObjects(), 0);
}

TEST(BornOnDateSystemTimeTest, HoldsTheDateAndNothingElse) {
  const SYSTEMTIME six = BornOnDate("240229").get_as_system_time();
  const SYSTEMTIME expected{2024, 2, 0, 29, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(&six, &expected, sizeof six), 0);
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
