#include "bod/vx_bios_wmi.h"

#include "support/test.h"

#include <oleauto.h>
#include <wbemcli.h>

#include "simulator/simulated_firmware.h"

namespace Vx::Tessel::Server::Shared::WMI {
namespace {

constexpr std::uint32_t kBlock = 128;
constexpr auto kMissing = static_cast<std::int32_t>(0x80041002);
constexpr auto kDenied = static_cast<std::int32_t>(0x80041003);
constexpr auto kNotTheBlock = static_cast<std::int32_t>(0x8007000D);

std::wstring Failed(const std::wstring& function, std::int32_t result) {
  wchar_t code[16];
  _snwprintf(code, std::size(code), L"%x", static_cast<unsigned>(result));
  return L"failed on function " + function + L" with HRESULT 0x" + code;
}

std::wstring Warning(const std::wstring& step, const std::wstring& rest) {
  return L"warning|class Vx::Tessel::Server::Shared::WMI::VxBiosWmi." + step + L" - " + rest;
}

class VxBiosWmiTest : public ::testing::Test {
 protected:
  VxBiosWmiTest() { firmware.SetWarrantyBlock(Filled()); }

  ~VxBiosWmiTest() override { ExpectNothingLeft(); }

  void ExpectNothingLeft() const {
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

  void ExpectWrite(std::int32_t result) {
    {
      VxBiosWmi bios;
      EXPECT_EQ(Write(bios, "20240229"), result);
    }
    firmware.ClearFailures();
    ExpectNothingLeft();
  }

  // Runs a read with an unusable reply and expects it to log `line` and return `result`.
  void ExpectUnreadable(const std::wstring& line, std::int32_t result) {
    VxBiosWmi bios;
    EXPECT_EQ(Read(bios), S_OK);
    EXPECT_EQ(bios.OutputResult(), result);
    firmware.ClearFailures();
    EXPECT_THAT(log.Lines(), ElementsAre(Warning(L"GetOutputData", line)));
    EXPECT_EQ(Output(), std::string(kBlock, '\0'));
    log.Clear();
  }

  std::string Output() const { return {output.begin(), output.end()}; }

  std::array<std::uint8_t, kBlock> output{};
  std::int32_t returnCode = 77;
  Simulator::SimulatedFirmware firmware{Simulator::SimulatedFirmware::Digits::Eight};
  Platform::MachineScope scope{[this](Platform::Machine& machine) { machine.com = &firmware; }};
  Tests::LogCapture log;
};

TEST_F(VxBiosWmiTest, ReadsAndWritesABlockThroughTheMethodOfItsSizeOnOneConnection) {
  firmware.SetReturnCode(5);
  VxBiosWmi bios;
  EXPECT_EQ(Read(bios), S_OK);
  EXPECT_EQ(bios.OutputResult(), S_OK);
  EXPECT_EQ(Output(), Filled());
  EXPECT_EQ(returnCode, 5);
  firmware.SetReturnCode(0);
  EXPECT_EQ(Write(bios, "20240229"), S_OK);
  EXPECT_EQ(returnCode, 0);
  EXPECT_EQ(firmware.BornOnDate().substr(0, 8), "20240229");
  EXPECT_EQ(firmware.ConnectedTo(), LR"(\\.\root\wmi)");
  ASSERT_THAT(firmware.Requests(), SizeIs(2));
  const auto read = firmware.Requests().front();
  EXPECT_EQ(read.path, LR"(\\PC\root\wmi:zrkBIntM.InstanceName="ACPI\\PNP0C14\\0_0")");
  EXPECT_EQ(read.method, L"zrkBIOSInt128");
  EXPECT_EQ(read.signature, "SECU");
  EXPECT_THAT(std::vector({read.command, read.commandType, read.size}), ElementsAre(1, 16, 0));
  EXPECT_FALSE(read.hasData);
  const auto write = firmware.Requests().back();
  EXPECT_EQ(write.method, L"zrkBIOSInt0");
  EXPECT_THAT(std::vector({write.command, write.commandType, write.size}), ElementsAre(2, 16, 8));
  EXPECT_EQ(write.data, "20240229");
  EXPECT_EQ(firmware.OpenInitializations(), 1);
  EXPECT_EQ(firmware.Connections(), 1);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(VxBiosWmiTest, AStepThatFailsLeavesNothingBehind) {
  for (const char* step :
       {"GetObject zrkBIntM", "GetMethod", "GetObject zrkBDataIn", "SpawnInstance zrkBDataIn",
        "PutByte", "Put Sign", "Put zrkBData", "SpawnInstance __PARAMETERS", "Put InData",
        "CreateInstanceEnum", "Next", "Get __PATH", "ExecMethod"}) {
    SCOPED_TRACE(step);
    firmware.Fail(step, kDenied);
    ExpectWrite(kDenied);
  }
  firmware.Fail("MakeByteArray", 0);
  ExpectWrite(E_FAIL);
  // If CoInitializeEx failed, CoUninitialize must not be called.
  firmware.Fail("CoInitializeEx", static_cast<std::int32_t>(RPC_E_CHANGED_MODE));
  ExpectWrite(S_OK);
}

TEST_F(VxBiosWmiTest, ACommandWhoseConnectionFailsIsEFailAndTheNextOneConnectsAnew) {
  // Only a failure of CoCreateInstance leaves COM initialized.
  for (const char* step : {"CoCreateInstance", "ConnectServer", "SetBlanket"}) {
    SCOPED_TRACE(step);
    firmware.Fail(step, kDenied);
    {
      VxBiosWmi bios;
      EXPECT_EQ(Read(bios), E_FAIL);
      firmware.ClearFailures();
      EXPECT_EQ(firmware.LiveObjects(), 0);
      EXPECT_EQ(firmware.OpenInitializations(), step == std::string("CoCreateInstance") ? 1 : 0);
      EXPECT_EQ(Read(bios), S_OK);
    }
    while (firmware.OpenInitializations() > 0) firmware.Uninitialize();
  }
}

TEST_F(VxBiosWmiTest, ATextThatCannotBeMadeIsThrownAndNothingIsLeftBehind) {
  // MakeText runs once each for the namespace, two classes, the instances' class, path and method.
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
    ExpectNothingLeft();
  }
  firmware.ClearFailures();
}

// Stores an array in `value` that is labeled as bytes regardless of its element type.
void MakeArray(VARIANT& value, VARTYPE type, LONG lower, ULONG count) {
  VariantClear(&value);
  V_VT(&value) = VT_ARRAY | VT_UI1;
  V_ARRAY(&value) = SafeArrayCreateVector(type, lower, count);
}

void MakeText(VARIANT& value) {
  VariantClear(&value);
  V_VT(&value) = VT_BSTR;
  V_BSTR(&value) = SysAllocString(L"20240229");
}

void MakeNullArray(VARIANT& value) {
  VariantClear(&value);
  V_VT(&value) = VT_ARRAY | VT_UI1;
  V_ARRAY(&value) = nullptr;
}

void MakeTwoDimensions(VARIANT& value) {
  SAFEARRAYBOUND bounds[] = {{128, 0}, {1, 0}};
  MakeNullArray(value);
  V_ARRAY(&value) = SafeArrayCreate(VT_UI1, 2, bounds);
}

// Stores an array in `value` with the highest lock count, so SafeArrayGetElement cannot lock it.
void MakeLocked(VARIANT& value) {
  static SAFEARRAY* const array = SafeArrayCreateVector(VT_UI1, 0, kBlock);
  array->cLocks = 0xFFFF;
  MakeNullArray(value);
  V_ARRAY(&value) = array;
}

TEST_F(VxBiosWmiTest, AHostileReplyIsLoggedAndLeavesTheBufferAlone) {
  const std::wstring noObject = L"OutputDataBlock->QueryInterface(OutputDataObject)";
  firmware.FailAfter("MakeByteArray", 1, 0);
  ExpectUnreadable(Failed(L"SafeArrayCreateVector(OutputDataSize)", E_FAIL), E_FAIL);
  const std::wstring invalid = L"return data is invalid";
  const std::wstring size = L"invalid return data size. requested 128 byte, but retuned ";
  const struct {
    const char* name;
    const wchar_t* property;
    void (*make)(VARIANT& value);
    std::wstring line;
    std::int32_t result = kNotTheBlock;
  } kReplies[] = {
      {"short", L"Data", [](auto& v) { MakeArray(v, VT_UI1, 0, 64); }, size + L"64 byte"},
      {"long", L"Data", [](auto& v) { MakeArray(v, VT_UI1, 0, 129); }, size + L"129 byte"},
      {"no bytes", L"Data", [](auto& v) { MakeArray(v, VT_UI1, 0, 0); }, size + L"0 byte"},
      {"wide elements", L"Data", [](auto& v) { MakeArray(v, VT_I4, 0, 128); }, invalid},
      {"negative lower bound", L"Data", [](auto& v) { MakeArray(v, VT_UI1, -5, 128); }, invalid},
      {"a null array", L"Data", MakeNullArray, invalid},
      {"nothing", L"Data", [](auto& v) { VariantClear(&v); }, invalid},
      {"a text", L"Data", MakeText, invalid},
      {"two dimensions", L"Data", MakeTwoDimensions, invalid},
      {"locked", L"Data", MakeLocked, Failed(L"SafeArrayGetElement()", E_UNEXPECTED), E_UNEXPECTED},
      {"a text for an object", L"OutData", MakeText, Failed(noObject, E_NOINTERFACE),
       E_NOINTERFACE},
  };
  for (const auto& c : kReplies) {
    SCOPED_TRACE(c.name);
    firmware.SetTamper([&c](const std::wstring& property, VARIANT& value) {
      if (property == c.property) c.make(value);
    });
    returnCode = 77;
    ExpectUnreadable(c.line, c.result);
    EXPECT_EQ(returnCode, c.property == std::wstring(L"Data") ? 0 : 77);
  }
}

TEST_F(VxBiosWmiTest, ACodeThatIsATextKeepsNoOutputBack) {
  firmware.SetTamper([](const std::wstring& property, VARIANT& value) {
    if (property == L"rwReturnCode") MakeText(value);
  });
  VxBiosWmi bios;
  EXPECT_EQ(Read(bios), S_OK);
  EXPECT_EQ(bios.OutputResult(), S_OK);
  EXPECT_EQ(Output(), Filled());
  EXPECT_EQ(returnCode, 77);
  const std::wstring line = Failed(L"OutputDataObject->Get(ReturnCode)", DISP_E_TYPEMISMATCH);
  EXPECT_THAT(log.Lines(), ElementsAre(Warning(L"GetOutputData", line)));
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
  EXPECT_EQ(bios.OutputResult(), kNotTheBlock) << "the first three bytes are unknown";
}

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
    EXPECT_EQ(bios.OutputResult(), E_FAIL);
  }
  CoUninitialize();
  EXPECT_EQ(firmware.BornOnDate().substr(0, 8), "20240229");
  EXPECT_THAT(log.Lines(), ElementsAre(Warning(
                               L"ExecuteCommand",
                               Failed(L"IWbemClassObject->GetMethod(BiosWmiMethod)", kMissing))));
}

}  // namespace
}  // namespace Vx::Tessel::Server::Shared::WMI
