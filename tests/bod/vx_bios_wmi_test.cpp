#include "bod/vx_bios_wmi.h"

#include <array>
#include <string>
#include <system_error>
#include <vector>

#include <windows.h>

#include <oleauto.h>
#include <wbemcli.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/machine.h"
#include "simulator/simulated_firmware.h"
#include "support/log_capture.h"

namespace Vx::Tessel::Server::Shared::WMI {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kBlock = 128;
constexpr auto kMissing = static_cast<std::int32_t>(0x80041002);
constexpr auto kDenied = static_cast<std::int32_t>(0x80041003);

std::wstring Failure(const std::wstring& step, const std::wstring& function, std::int32_t result) {
  wchar_t code[16];
  _snwprintf(code, std::size(code), L"%x", static_cast<unsigned>(result));
  return L"warning|class Vx::Tessel::Server::Shared::WMI::VxBiosWmi." + step +
         L" - failed on function " + function + L" with HRESULT 0x" + code;
}

std::wstring Line(const std::wstring& text) {
  return L"warning|class Vx::Tessel::Server::Shared::WMI::VxBiosWmi.GetOutputData - " + text;
}

class VxBiosWmiTest : public ::testing::Test {
 protected:
  VxBiosWmiTest() { firmware.SetWarrantyBlock(Filled()); }

  ~VxBiosWmiTest() override {
    EXPECT_EQ(firmware.LiveObjects(), 0);
    EXPECT_EQ(firmware.OpenInitializations(), 0);
  }

  static std::string Filled() {
    std::string block(kBlock, '\0');
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i + 1);
    return block;
  }

  std::int32_t Read(VxBiosWmi& bios) {
    output.fill(0);
    return bios.ExecuteCommand(kBiosRead, kWarranty, 0, nullptr, kBlock, output.data(),
                               &returnCode);
  }

  std::int32_t Write(VxBiosWmi& bios, const std::string& digits) {
    const std::vector<std::uint8_t> bytes(digits.begin(), digits.end());
    return bios.ExecuteCommand(kBiosWrite, kWarranty, static_cast<std::uint32_t>(bytes.size()),
                               bytes.data(), 0, nullptr, &returnCode);
  }

  std::string Output() const { return {output.begin(), output.end()}; }

  std::array<std::uint8_t, kBlock> output{};
  std::int32_t returnCode = 77;
  Simulator::SimulatedFirmware firmware{Simulator::SimulatedFirmware::Digits::Eight};
  Platform::MachineScope scope{[this](Platform::Machine& machine) { machine.com = &firmware; }};
  Tests::LogCapture log;
};

TEST_F(VxBiosWmiTest, ReadsABlockThroughTheMethodOfItsSize) {
  firmware.SetReturnCode(5);
  VxBiosWmi bios;
  EXPECT_EQ(Read(bios), S_OK);
  EXPECT_EQ(Output(), Filled());
  EXPECT_EQ(returnCode, 5);
  EXPECT_EQ(firmware.ConnectedTo(), LR"(\\.\root\wmi)");
  ASSERT_THAT(firmware.Requests(), SizeIs(1));
  const auto request = firmware.Requests().front();
  EXPECT_EQ(request.path, LR"(\\PC\root\wmi:zrkBIntM.InstanceName="ACPI\\PNP0C14\\0_0")");
  EXPECT_EQ(request.method, L"zrkBIOSInt128");
  EXPECT_EQ(request.signature, "SECU");
  EXPECT_EQ(request.command, 1);
  EXPECT_EQ(request.commandType, 16);
  EXPECT_EQ(request.size, 0);
  EXPECT_FALSE(request.hasData);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(VxBiosWmiTest, WritesThroughTheMethodWithoutOutput) {
  VxBiosWmi bios;
  EXPECT_EQ(Write(bios, "20240229"), S_OK);
  EXPECT_EQ(returnCode, 0);
  EXPECT_EQ(firmware.BornOnDate().substr(0, 8), "20240229");
  const auto request = firmware.Requests().back();
  EXPECT_EQ(request.method, L"zrkBIOSInt0");
  EXPECT_EQ(request.command, 2);
  EXPECT_EQ(request.size, 8);
  EXPECT_EQ(request.data, "20240229");
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(VxBiosWmiTest, ConnectsOnceForManyCommands) {
  {
    VxBiosWmi bios;
    EXPECT_EQ(Read(bios), S_OK);
    EXPECT_EQ(Write(bios, "20240229"), S_OK);
    EXPECT_EQ(Read(bios), S_OK);
    EXPECT_EQ(firmware.OpenInitializations(), 1);
  }
  EXPECT_EQ(firmware.Connections(), 1);
}

TEST_F(VxBiosWmiTest, AnswersAndLogsTheResultOfTheStepThatFails) {
  static constexpr struct {
    const char* step;
    const wchar_t* operation;
    const wchar_t* function;
  } kCases[] = {
      {"GetObject zrkBIntM", L"ExecuteCommand", L"IWbemServices->GetObject(InputDataBlock)"},
      {"GetMethod", L"ExecuteCommand", L"IWbemClassObject->GetMethod(BiosWmiMethod)"},
      {"GetObject zrkBDataIn", L"SetupInputDataBlock", L"IWbemServices->GetObject(InputDataBlock)"},
      {"SpawnInstance zrkBDataIn", L"SetupInputDataBlock",
       L"IWbemClassObject->SpawnInstance(InputDataBlockInstance)"},
      {"PutByte", L"CreateSafeArray", L"SafeArrayPutElement()"},
      {"Put Sign", L"SetupInputDataBlock", L"InputDataBlockInstance->Put(Sign)"},
      {"Put Command", L"SetupInputDataBlock", L"InputDataBlockInstance->Put(Command)"},
      {"Put CommandType", L"SetupInputDataBlock", L"InputDataBlockInstance->Put(CommandType)"},
      {"Put Size", L"SetupInputDataBlock", L"InputDataBlockInstance->Put(Size)"},
      {"Put zrkBData", L"SetupInputDataBlock", L"InputDataBlockInstance->Put(inputData)"},
      {"SpawnInstance __PARAMETERS", L"SetupInputDataBlock",
       L"IWbemClassObject->SpawnInstance(BiosMethodInstance)"},
      {"Put InData", L"SetupInputDataBlock", L"BiosMethodInstance->Put(InputDataBlockClass)"},
      {"CreateInstanceEnum", L"GetBiosMethodObjectPath",
       L"IWbemServices->CreateInstanceEnum(BiosWmiMethod)"},
      {"Next", L"GetBiosMethodObjectPath", L"IEnumWbemClassObject->Next()"},
      {"Get __PATH", L"GetBiosMethodObjectPath", L"IWbemClassObject->Get(path)"},
      {"ExecMethod", L"ExecuteCommand", L"IWbemServices->ExecMethod(BIOS method)"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.step);
    log.Clear();
    firmware.Fail(c.step, kDenied);
    {
      VxBiosWmi bios;
      EXPECT_EQ(Write(bios, "20240229"), kDenied);
    }
    firmware.ClearFailures();
    EXPECT_THAT(log.Lines(), ElementsAre(Failure(c.operation, c.function, kDenied)));
    EXPECT_EQ(firmware.LiveObjects(), 0);
    EXPECT_EQ(firmware.OpenInitializations(), 0);
  }
  EXPECT_THAT(firmware.Requests(), IsEmpty());
}

TEST_F(VxBiosWmiTest, RefusesAStepThatSucceedsWithNothing) {
  static constexpr struct {
    const char* step;
    std::int32_t claimed;
    std::int32_t expected;
  } kCases[] = {
      {"GetObject zrkBIntM", S_OK, E_POINTER},
      {"GetMethod", S_OK, E_POINTER},
      {"GetObject zrkBDataIn", S_OK, E_POINTER},
      {"SpawnInstance zrkBDataIn", S_OK, E_POINTER},
      {"SpawnInstance __PARAMETERS", S_OK, E_POINTER},
      {"CreateInstanceEnum", S_OK, E_POINTER},
      {"Next", WBEM_S_FALSE, kMissing},
      {"Next", WBEM_S_TIMEDOUT, static_cast<std::int32_t>(0x80041069)},
      {"Get __PATH", S_OK, DISP_E_TYPEMISMATCH},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.step);
    log.Clear();
    firmware.Fail(c.step, c.claimed);
    {
      VxBiosWmi bios;
      EXPECT_EQ(Read(bios), c.expected);
    }
    firmware.ClearFailures();
    EXPECT_THAT(log.Lines(), SizeIs(1));
  }
}

TEST_F(VxBiosWmiTest, ACommandWhoseConnectionFailsIsEFail) {
  static constexpr struct {
    const char* step;
    const wchar_t* function;
    int entriesLeft;
  } kCases[] = {
      // The one path that leaves COM entered.
      {"CoCreateInstance", L"CoCreateInstance(IWbemLocator)", 1},
      {"ConnectServer", L"IWbemLocator->ConnectServer()", 0},
      {"SetBlanket", L"CoSetProxyBlanket()", 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.step);
    log.Clear();
    firmware.Fail(c.step, kDenied);
    {
      VxBiosWmi bios;
      EXPECT_EQ(Read(bios), E_FAIL);
    }
    firmware.ClearFailures();
    EXPECT_THAT(log.Lines(), ElementsAre(Failure(L"GetReady", c.function, kDenied)));
    EXPECT_EQ(firmware.LiveObjects(), 0);
    EXPECT_EQ(firmware.OpenInitializations(), c.entriesLeft);
    while (firmware.OpenInitializations() > 0) firmware.Uninitialize();
  }
}

TEST_F(VxBiosWmiTest, GoesOnWhereComWasSetUpByOthers) {
  firmware.Fail("CoInitializeEx", RPC_E_CHANGED_MODE);
  firmware.Fail("CoInitializeSecurity", RPC_E_TOO_LATE);
  {
    VxBiosWmi bios;
    EXPECT_EQ(Read(bios), S_OK);
  }
  EXPECT_THAT(log.Lines(), ElementsAre(Failure(L"GetReady", L"CoInitializeEx()",
                                               static_cast<std::int32_t>(RPC_E_CHANGED_MODE))));
  // The apartment was not entered by the channel, so it is not the channel's to leave.
  EXPECT_EQ(firmware.OpenInitializations(), 0);
}

TEST_F(VxBiosWmiTest, LogsEverySecurityFailureButTooLate) {
  firmware.Fail("CoInitializeSecurity", kDenied);
  VxBiosWmi bios;
  EXPECT_EQ(Read(bios), S_OK);
  EXPECT_THAT(log.Lines(), ElementsAre(Failure(L"GetReady", L"CoInitializeSecurity()", kDenied)));
}

TEST_F(VxBiosWmiTest, ConnectsAnewAfterAFailedConnection) {
  firmware.Fail("ConnectServer", kDenied);
  VxBiosWmi bios;
  EXPECT_EQ(Read(bios), E_FAIL);
  firmware.ClearFailures();
  EXPECT_EQ(Read(bios), S_OK);
  EXPECT_EQ(firmware.Connections(), 2);
}

TEST_F(VxBiosWmiTest, AnUnreadableReplyIsLoggedAndLeavesTheBufferAlone) {
  static constexpr struct {
    const char* step;
    std::int32_t result;
    const wchar_t* function;
    std::int32_t logged;
    bool codeKept;
  } kCases[] = {
      {"Get OutData", kDenied, L"OutputDataBlockInstance->Get(OutputDataBlock)", kDenied, false},
      {"Get OutData", S_OK, L"OutputDataBlock->QueryInterface(OutputDataObject)", E_NOINTERFACE,
       false},
      {"QueryInterface OutData", kDenied, L"OutputDataBlock->QueryInterface(OutputDataObject)",
       kDenied, false},
      {"QueryInterface OutData", S_OK, L"OutputDataBlock->QueryInterface(OutputDataObject)",
       E_POINTER, false},
      {"Get rwReturnCode", kDenied, L"OutputDataObject->Get(ReturnCode)", kDenied, false},
      {"Get rwReturnCode", S_OK, L"OutputDataObject->Get(ReturnCode)", DISP_E_TYPEMISMATCH, false},
      {"Get Data", kDenied, L"OutputDataObject->Get(outputData)", kDenied, true},
      {"ExecMethod", S_OK, L"OutputDataBlockInstance->Get(OutputDataBlock)", E_POINTER, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.step);
    log.Clear();
    returnCode = 77;
    firmware.Fail(c.step, c.result);
    VxBiosWmi bios;
    EXPECT_EQ(Read(bios), S_OK);
    firmware.ClearFailures();
    EXPECT_THAT(log.Lines(), ElementsAre(Failure(L"GetOutputData", c.function, c.logged)));
    EXPECT_EQ(returnCode, c.codeKept ? 0 : 77);
    EXPECT_EQ(Output(), std::string(kBlock, '\0'));
  }
}

TEST_F(VxBiosWmiTest, MemoryThatRunsOutIsEFail) {
  static constexpr struct {
    unsigned skip;
    bool succeeds;
    const wchar_t* operation;
    const wchar_t* function;
  } kCases[] = {
      {0, false, L"CreateSafeArray", L"SafeArrayCreateVector()"},
      {1, true, L"GetOutputData", L"SafeArrayCreateVector(OutputDataSize)"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.function);
    log.Clear();
    firmware.FailAfter("MakeByteArray", c.skip, 0);
    VxBiosWmi bios;
    EXPECT_EQ(Read(bios), c.succeeds ? S_OK : E_FAIL);
    firmware.ClearFailures();
    EXPECT_THAT(log.Lines(), ElementsAre(Failure(c.operation, c.function, E_FAIL)));
    EXPECT_EQ(Output(), std::string(kBlock, '\0'));
  }
}

TEST_F(VxBiosWmiTest, ATextThatCannotBeMadeIsThrownAndNothingIsLeftBehind) {
  // Namespace, two classes, the instances' class, path and method.
  for (unsigned skip = 0; skip < 6; ++skip) {
    SCOPED_TRACE(skip);
    firmware.FailAfter("MakeText", skip, 0);
    try {
      VxBiosWmi bios;
      Read(bios);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), E_OUTOFMEMORY);
    }
    EXPECT_EQ(firmware.LiveObjects(), 0);
    EXPECT_EQ(firmware.OpenInitializations(), 0);
  }
  firmware.ClearFailures();
}

struct HostileReply {
  const char* name;
  const wchar_t* property;
  void (*make)(VARIANT& value);
  const wchar_t* line;        // without level and class
  const wchar_t* failedStep;  // or the function of a failure
  std::int32_t failure;
};

void MakeArray(VARIANT& value, VARTYPE type, LONG lower, ULONG count) {
  VariantClear(&value);
  V_VT(&value) = static_cast<VARTYPE>(VT_ARRAY | type);
  V_ARRAY(&value) = SafeArrayCreateVector(type, lower, count);
}

void MakeText(VARIANT& value) {
  VariantClear(&value);
  V_VT(&value) = VT_BSTR;
  V_BSTR(&value) = SysAllocString(L"20240229");
}

TEST_F(VxBiosWmiTest, AHostileReplyIsRefusedWithoutBeingBelieved) {
  static constexpr HostileReply kCases[] = {
      {"half the block", L"Data", [](VARIANT& v) { MakeArray(v, VT_UI1, 0, 64); },
       L"invalid return data size. requested 128 byte, but retuned 64 byte", nullptr, 0},
      {"one byte more", L"Data", [](VARIANT& v) { MakeArray(v, VT_UI1, 0, 129); },
       L"invalid return data size. requested 128 byte, but retuned 129 byte", nullptr, 0},
      {"no bytes", L"Data", [](VARIANT& v) { MakeArray(v, VT_UI1, 0, 0); },
       L"invalid return data size. requested 128 byte, but retuned 0 byte", nullptr, 0},
      {"a null array", L"Data",
       [](VARIANT& v) {
         VariantClear(&v);
         V_VT(&v) = VT_ARRAY | VT_UI1;
         V_ARRAY(&v) = nullptr;
       },
       L"return data is invalid", nullptr, 0},
      {"nothing", L"Data", [](VARIANT& v) { VariantClear(&v); }, L"return data is invalid", nullptr,
       0},
      {"a text", L"Data", MakeText, L"return data is invalid", nullptr, 0},
      {"wide elements", L"Data", [](VARIANT& v) { MakeArray(v, VT_I4, 0, 128); },
       L"return data is invalid", nullptr, 0},
      {"wide elements that claim to be bytes", L"Data",
       [](VARIANT& v) {
         MakeArray(v, VT_I4, 0, 128);
         V_VT(&v) = VT_ARRAY | VT_UI1;
       },
       L"return data is invalid", nullptr, 0},
      {"two dimensions", L"Data",
       [](VARIANT& v) {
         VariantClear(&v);
         SAFEARRAYBOUND bounds[] = {{128, 0}, {1, 0}};
         V_VT(&v) = VT_ARRAY | VT_UI1;
         V_ARRAY(&v) = SafeArrayCreate(VT_UI1, 2, bounds);
       },
       L"return data is invalid", nullptr, 0},
      {"indices below zero", L"Data", [](VARIANT& v) { MakeArray(v, VT_UI1, -5, 128); },
       L"return data is invalid", nullptr, 0},
      {"a return code in words", L"rwReturnCode", MakeText, nullptr,
       L"OutputDataObject->Get(ReturnCode)", DISP_E_TYPEMISMATCH},
      {"a number for an object", L"OutData",
       [](VARIANT& v) {
         VariantClear(&v);
         V_VT(&v) = VT_I4;
         V_I4(&v) = 4;
       },
       nullptr, L"OutputDataBlock->QueryInterface(OutputDataObject)", E_NOINTERFACE},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    log.Clear();
    firmware.SetTamper([&c](const std::wstring& property, VARIANT& value) {
      if (property == c.property) c.make(value);
    });
    VxBiosWmi bios;
    EXPECT_EQ(Read(bios), S_OK);
    firmware.SetTamper(nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(c.line != nullptr
                                             ? Line(c.line)
                                             : Failure(L"GetOutputData", c.failedStep, c.failure)));
    EXPECT_EQ(Output(), std::string(kBlock, '\0'));
  }
}

TEST_F(VxBiosWmiTest, AnArrayThatStartsHigherFillsThePlacesThatItsIndicesName) {
  firmware.SetTamper([](const std::wstring& property, VARIANT& value) {
    if (property != L"Data") return;
    MakeArray(value, VT_UI1, 3, 128);
    for (LONG i = 3; i < 131; ++i) {
      BYTE byte = static_cast<BYTE>(i);
      SafeArrayPutElement(V_ARRAY(&value), &i, &byte);
    }
  });
  VxBiosWmi bios;
  EXPECT_EQ(Read(bios), S_OK);
  for (std::size_t i = 0; i < output.size(); ++i) EXPECT_EQ(output[i], i < 3 ? 0 : i);
}

// The real COM of this machine, and a client that knows of no simulated firmware.
TEST_F(VxBiosWmiTest, ReachesARegisteredLocatorThroughComItself) {
  const Platform::MachineScope real(
      [](Platform::Machine& machine) { machine.com = Platform::WindowsMachine().com; });
  ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
  {
    const Simulator::SimulatedFirmware::ClassRegistration registration(firmware);
    VxBiosWmi bios;
    EXPECT_EQ(Read(bios), S_OK);
    EXPECT_EQ(Output(), Filled());
    EXPECT_EQ(Write(bios, "20240229"), S_OK);
    firmware.Fail("GetMethod", kMissing);
    EXPECT_EQ(Read(bios), kMissing);
  }
  CoUninitialize();
  EXPECT_EQ(firmware.BornOnDate().substr(0, 8), "20240229");
  EXPECT_THAT(log.Lines(),
              ElementsAre(Failure(L"ExecuteCommand", L"IWbemClassObject->GetMethod(BiosWmiMethod)",
                                  kMissing)));
}

TEST_F(VxBiosWmiTest, AMachineWithoutTheFirmwareClassIsAnErrorThatNamesIt) {
  const Platform::MachineScope real(
      [](Platform::Machine& machine) { machine.com = Platform::WindowsMachine().com; });
  VxBiosWmi bios;
  EXPECT_EQ(Read(bios), kMissing);
  EXPECT_THAT(log.Lines(),
              ElementsAre(Failure(L"ExecuteCommand", L"IWbemServices->GetObject(InputDataBlock)",
                                  kMissing)));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Shared::WMI
