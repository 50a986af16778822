#include "bod/set_born_on_date.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <windows.h>

#include <oleauto.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/machine.h"
#include "simulator/simulated_firmware.h"
#include "simulator/simulated_registry.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace Vx::Tessel::Server::Services::Orvane {
namespace {

using Logging::LogManager;
using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr std::uint64_t kDayIn2024 = 133'655'000'000'000'000;  // 2024-07-15

class SetBornOnDateTest : public ::testing::Test {
 protected:
  SetBornOnDateTest() { clock.SetUtcFileTime(kDayIn2024); }

  static std::string Stored() {
    const auto document = Storage::CapDataStore().readDocument("OrvaneServiceDocument");
    const auto element = document.Find("born_on_date");
    return element ? std::string(element->AsText().value_or("not a text")) : "missing";
  }

  Tests::PrivateStore store;
  Tests::TempFolder programs;
  Tests::EnvironmentOverride programFiles{L"ProgramFiles(x86)", programs.Path().wstring()};
  Simulator::VirtualClock clock;
  Simulator::SimulatedFirmware firmware;
  Simulator::SimulatedRegistry registry;
  Platform::MachineScope scope{[this](Platform::Machine& machine) {
    machine.clock = &clock;
    machine.com = &firmware;
    machine.registry = &registry;
  }};
  Tests::LogCapture log;
  const Logging::TraceLogger& logger = *LogManager::GetLogger();
};

TEST_F(SetBornOnDateTest, WritesTheDateAtTheFirstStartAndLeavesItAtTheSecond) {
  SetBornOnDate(logger);
  EXPECT_EQ(firmware.BornOnDate(), "20240715");
  EXPECT_EQ(Stored(), "20240715");
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(L"info|OrvaneService::SetBornOnDate - initial born on date value: ",
                  L"info|OrvaneService::SetBornOnDate - successfully wrote born on date value or "
                  L"value was already set: 20240715",
                  L"info|Wrote born on date to shared data store"));

  log.Clear();
  clock.SetUtcFileTime(kDayIn2024 + 864'000'000'000);
  const std::size_t before = firmware.Requests().size();
  SetBornOnDate(logger);
  EXPECT_EQ(firmware.BornOnDate(), "20240715");
  EXPECT_EQ(Stored(), "20240715");
  EXPECT_THAT(firmware.Requests(), SizeIs(before + 3));  // three reads of the date, no write
  EXPECT_THAT(log.Lines().front(),
              L"info|OrvaneService::SetBornOnDate - initial born on date value: 20240715");
}

TEST_F(SetBornOnDateTest, LeavesTheWorkToLumoTesselWhereThatIsInstalled) {
  const auto folder = programs.Path() / "Vx" / "Vx Lumo Tessel";
  std::filesystem::create_directories(folder);
  std::ofstream(folder / "VxLumoTessel.exe") << "program";
  SetBornOnDate(logger);
  EXPECT_EQ(firmware.BornOnDate(), "");
  EXPECT_EQ(Stored(), "missing");
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|Lumo Tessel was found",
                                       L"info|Tessel is installed. Not setting born on date"));
}

TEST_F(SetBornOnDateTest, AFailedCommandIsLoggedWithItsResultAndNothingIsStored) {
  firmware.Fail("ExecMethod", static_cast<std::int32_t>(0x80041003));
  SetBornOnDate(logger);
  EXPECT_EQ(Stored(), "missing");
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(L"warning|class Vx::Tessel::Server::Shared::WMI::VxBiosWmi.ExecuteCommand - "
                  L"failed on function IWbemServices->ExecMethod(BIOS method) with HRESULT "
                  L"0x80041003",
                  ::testing::AllOf(
                      StartsWith(L"error|OrvaneService::SetBornOnDate threw system error "
                                 L"\"VxBiosWmi::ExecuteCommand failure - Command: BIOS WMI Read, "
                                 L"Command type: Warranty"),
                      ::testing::EndsWith(L"\" with status -2147217405"))));
}

TEST_F(SetBornOnDateTest, EndsQuietlyWhereNoTextCanBeMadeForACall) {
  firmware.Fail("MakeText", 0);
  SetBornOnDate(logger);
  EXPECT_THAT(log.Lines(), ElementsAre(::testing::EndsWith(L"\" with status -2147024882")));
}

TEST_F(SetBornOnDateTest, AStoreThatCannotBeOpenedStopsBeforeTheFirmwareIsTouched) {
  // A file where the store's folder would be.
  std::ofstream(std::filesystem::path(store.FilePath()).parent_path().parent_path()) << "file";
  SetBornOnDate(logger);
  EXPECT_THAT(firmware.Requests(), SizeIs(0));
  EXPECT_THAT(log.Lines().back(),
              StartsWith(L"error|OrvaneService::SetBornOnDate threw exception "));
}

TEST_F(SetBornOnDateTest, StoresWhatTheFirmwareAnswersEvenWhenThatIsNoDate) {
  firmware.SetTamper([](const std::wstring& property, VARIANT& value) {
    if (property == L"Data") VariantClear(&value);
  });
  SetBornOnDate(logger);
  EXPECT_EQ(Stored(), "");
}

}  // namespace
}  // namespace Vx::Tessel::Server::Services::Orvane
