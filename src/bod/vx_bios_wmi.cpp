#include "bod/vx_bios_wmi.h"

#include <iterator>
#include <system_error>
#include <utility>

#include <windows.h>

#include <wbemcli.h>

#include "platform/com_owners.h"
#include "platform/machine.h"
#include "platform/runtime/type_name.h"

namespace Vx::Tessel::Server::Shared::WMI {

namespace {

constexpr wchar_t kFailed[] = L"%S.%S - failed on function %s with HRESULT 0x%x";
constexpr wchar_t kInvalidData[] = L"%S.%S - return data is invalid";
constexpr wchar_t kInvalidSize[] =
    L"%S.%S - invalid return data size. requested %d byte, but retuned %d byte";

constexpr char kGetReady[] = "GetReady";
constexpr char kExecuteCommand[] = "ExecuteCommand";
constexpr char kSetupInputDataBlock[] = "SetupInputDataBlock";
constexpr char kGetBiosMethodObjectPath[] = "GetBiosMethodObjectPath";
constexpr char kGetOutputData[] = "GetOutputData";
constexpr char kCreateSafeArray[] = "CreateSafeArray";

constexpr char kOutOfMemory[] = "VxBiosWmi - out of memory";

constexpr wchar_t kNamespace[] = LR"(\\.\root\wmi)";
// The firmware uses both spellings of its method class.
constexpr wchar_t kMethodClass[] = L"zrkBIntM";
constexpr wchar_t kMethodInstances[] = L"ZrkBIntM";
constexpr wchar_t kInputBlockClass[] = L"zrkBDataIn";
constexpr wchar_t kMethodName[] = L"zrkBIOSInt%ld";
constexpr std::size_t kMethodNameChars = 60;

// The error for a reply that does not contain exactly the requested bytes.
constexpr HRESULT kNotTheBlock = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

constexpr std::uint8_t kSignature[] = {'S', 'E', 'C', 'U'};
constexpr LONG kNextTimeout = 2000;  // milliseconds

using Platform::ComPtr;
using Platform::UniqueBstr;
using Platform::Variant;

// Ends a command at a step that failed, which has been logged. Caught in ExecuteCommand.
struct StepFailed {
  HRESULT result;
};

Platform::Com& Com() {
  return *Platform::CurrentMachine().com;
}

UniqueBstr Text(const wchar_t* text) {
  UniqueBstr copy(Com().MakeText(text));
  if (copy == nullptr) {
    throw std::system_error(E_OUTOFMEMORY, std::generic_category(), kOutOfMemory);
  }
  return copy;
}

// Returns E_POINTER if the call succeeded but returned no object.
template <typename Interface>
HRESULT WithObject(HRESULT result, const ComPtr<Interface>& object) {
  return SUCCEEDED(result) && !object ? E_POINTER : result;
}

HRESULT Get(const ComPtr<IWbemClassObject>& object, const wchar_t* property, Variant& value) {
  return object->Get(property, 0, value.Receive(), nullptr, nullptr);
}

}  // namespace

VxBiosWmi::VxBiosWmi()
    : logger(Logging::LogManager::GetLogger()),
      class_name(Platform::TypeName<VxBiosWmi>()),
      outputResult(E_FAIL) {}

VxBiosWmi::~VxBiosWmi() {
  if (ready) Disconnect();
}

std::int32_t VxBiosWmi::Check(const char* step, const wchar_t* function,
                              std::int32_t result) const {
  if (FAILED(result)) logger->LogWarning(kFailed, class_name, step, function, result);
  return result;
}

void VxBiosWmi::Require(const char* step, const wchar_t* function, std::int32_t result) const {
  if (FAILED(Check(step, function, result))) throw StepFailed{result};
}

bool VxBiosWmi::GetReady() {
  if (ready) return true;
  // Allocated before initializing COM, because the allocation can throw.
  const UniqueBstr name = Text(kNamespace);
  Platform::Com& com = Com();

  // Neither failure is fatal, because another part of the process may have initialized COM
  // differently, in which case the calls often still work.
  comEntered =
      SUCCEEDED(Check(kGetReady, L"CoInitializeEx()", com.InitializeMultithreaded())) || comEntered;
  const std::int32_t security = com.InitializeSecurity(Platform::Cloaking::None);
  if (security != RPC_E_TOO_LATE) Check(kGetReady, L"CoInitializeSecurity()", security);

  ComPtr<IWbemLocator> locator;
  const HRESULT created = WithObject(com.CreateWbemLocator(locator.Receive()), locator);
  // Does not uninitialize COM here, because callers have always found it initialized.
  if (FAILED(Check(kGetReady, L"CoCreateInstance(IWbemLocator)", created))) return false;

  HRESULT connected = locator->ConnectServer(name.get(), nullptr, nullptr, nullptr, 0, nullptr,
                                             nullptr, services.Receive());
  connected = Check(kGetReady, L"IWbemLocator->ConnectServer()", WithObject(connected, services));
  locator.Reset();
  if (SUCCEEDED(connected)) {
    connected = Check(kGetReady, L"CoSetProxyBlanket()", com.SetProxyBlanket(services.Get()));
  }
  ready = SUCCEEDED(connected);
  if (!ready) Disconnect();
  return ready;
}

void VxBiosWmi::Disconnect() {
  services.Reset();
  // If initializing COM failed, another component owns the thread's apartment.
  if (comEntered) Com().Uninitialize();
  comEntered = false;
  ready = false;
}

VxBiosWmi::ClassObject VxBiosWmi::GetClass(const char* step, const wchar_t* name) const {
  const UniqueBstr path = Text(name);
  ClassObject object;
  const HRESULT result = services->GetObject(path.get(), 0, nullptr, object.Receive(), nullptr);
  Require(step, L"IWbemServices->GetObject(InputDataBlock)", WithObject(result, object));
  return object;
}

std::int32_t VxBiosWmi::ExecuteCommand(int command, int commandType, std::uint32_t inputSize,
                                       const std::uint8_t* input, std::uint32_t outputSize,
                                       std::uint8_t* output, std::int32_t* returnCode) {
  outputResult = E_FAIL;
  if (!GetReady()) return E_FAIL;

  wchar_t method[kMethodNameChars] = {};
  // Uses the system's formatting function, because the compiler's would be linked into the module.
  static_cast<void>(
      _snwprintf(method, std::size(method) - 1, kMethodName, static_cast<long>(outputSize)));

  HRESULT executed = E_FAIL;
  try {
    const ClassObject methodClass = GetClass(kExecuteCommand, kMethodClass);
    ClassObject methodInput;
    const HRESULT found = methodClass->GetMethod(method, 0, methodInput.Receive(), nullptr);
    Require(kExecuteCommand, L"IWbemClassObject->GetMethod(BiosWmiMethod)",
            WithObject(found, methodInput));
    const ClassObject methodInstance =
        SetupInputDataBlock(command, commandType, inputSize, input, methodInput);
    Variant path;
    GetBiosMethodObjectPath(path);

    const UniqueBstr pathText = Text(Platform::TextIn(*path));
    const UniqueBstr methodText = Text(method);
    ClassObject outParameters;
    executed = services->ExecMethod(pathText.get(), methodText.get(), 0, nullptr,
                                    methodInstance.Get(), outParameters.Receive(), nullptr);
    Require(kExecuteCommand, L"IWbemServices->ExecMethod(BIOS method)", executed);
    GetOutputData(outParameters, outputSize, output, returnCode);
    outputResult = S_OK;
  } catch (const StepFailed& failed) {
    if (FAILED(executed)) return failed.result;
    // The firmware has already run the command, so an unreadable reply does not make it fail.
    outputResult = failed.result;
  }
  return executed;
}

VxBiosWmi::ClassObject VxBiosWmi::SetupInputDataBlock(int command, int commandType,
                                                      std::uint32_t inputSize,
                                                      const std::uint8_t* input,
                                                      const ClassObject& methodInput) const {
  const ClassObject blockClass = GetClass(kSetupInputDataBlock, kInputBlockClass);
  ClassObject block;
  HRESULT spawned = blockClass->SpawnInstance(0, block.Receive());
  Require(kSetupInputDataBlock, L"IWbemClassObject->SpawnInstance(InputDataBlockInstance)",
          WithObject(spawned, block));

  const auto put = [&](const ClassObject& object, const wchar_t* property, Variant& value,
                       const wchar_t* function) {
    Require(kSetupInputDataBlock, function, object->Put(property, 0, value.Get(), 0));
  };
  const auto putNumber = [&](const wchar_t* property, std::int32_t number,
                             const wchar_t* function) {
    Variant value;
    value.SetInt32(number);
    put(block, property, value, function);
  };
  Variant signature;
  CreateSafeArray(kSignature, static_cast<std::uint32_t>(std::size(kSignature)), signature);
  put(block, L"Sign", signature, L"InputDataBlockInstance->Put(Sign)");
  putNumber(L"Command", command, L"InputDataBlockInstance->Put(Command)");
  putNumber(L"CommandType", commandType, L"InputDataBlockInstance->Put(CommandType)");
  putNumber(L"Size", static_cast<std::int32_t>(inputSize), L"InputDataBlockInstance->Put(Size)");
  Variant data;
  if (inputSize > 0) {
    CreateSafeArray(input, inputSize, data);
  } else {
    data.SetBytes(nullptr);
  }
  put(block, L"zrkBData", data, L"InputDataBlockInstance->Put(inputData)");

  ClassObject methodInstance;
  spawned = methodInput->SpawnInstance(0, methodInstance.Receive());
  Require(kSetupInputDataBlock, L"IWbemClassObject->SpawnInstance(BiosMethodInstance)",
          WithObject(spawned, methodInstance));
  Variant object;
  object.SetObject(block.Get());
  put(methodInstance, L"InData", object, L"BiosMethodInstance->Put(InputDataBlockClass)");
  return methodInstance;
}

void VxBiosWmi::CreateSafeArray(const std::uint8_t* bytes, std::uint32_t count,
                                Variant& array) const {
  Platform::UniqueSafeArray made(Com().MakeByteArray(count));
  Require(kCreateSafeArray, L"SafeArrayCreateVector()", made != nullptr ? S_OK : E_FAIL);
  for (std::uint32_t i = 0; i < count; ++i) {
    Require(kCreateSafeArray, L"SafeArrayPutElement()",
            Com().PutByte(made.get(), static_cast<std::int32_t>(i), bytes[i]));
  }
  array.SetBytes(std::move(made));
}

void VxBiosWmi::GetBiosMethodObjectPath(Variant& path) const {
  const UniqueBstr name = Text(kMethodInstances);
  ComPtr<IEnumWbemClassObject> instances;
  HRESULT result = services->CreateInstanceEnum(
      name.get(), WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr,
      instances.Receive());
  Require(kGetBiosMethodObjectPath, L"IWbemServices->CreateInstanceEnum(BiosWmiMethod)",
          WithObject(result, instances));

  ClassObject instance;
  ULONG returned = 0;
  result = instances->Next(kNextTimeout, 1, instance.Receive(), &returned);
  // WMI reports neither the end of the list nor a timeout as an error, but both return no instance.
  if (SUCCEEDED(result) && !instance) {
    result = result == WBEM_S_TIMEDOUT ? static_cast<HRESULT>(WBEM_E_TIMED_OUT)
                                       : static_cast<HRESULT>(WBEM_E_NOT_FOUND);
  }
  Require(kGetBiosMethodObjectPath, L"IEnumWbemClassObject->Next()", result);

  result = Get(instance, L"__PATH", path);
  if (SUCCEEDED(result) && Platform::TextIn(*path) == nullptr) result = DISP_E_TYPEMISMATCH;
  Require(kGetBiosMethodObjectPath, L"IWbemClassObject->Get(path)", result);
}

void VxBiosWmi::GetOutputData(const ClassObject& outParameters, std::uint32_t outputSize,
                              std::uint8_t* output, std::int32_t* returnCode) const {
  Variant block;
  Require(kGetOutputData, L"OutputDataBlockInstance->Get(OutputDataBlock)",
          outParameters ? Get(outParameters, L"OutData", block) : E_POINTER);

  ClassObject data;
  IUnknown* const held = Platform::ObjectIn(*block);
  void* queried = nullptr;
  HRESULT result =
      held != nullptr ? held->QueryInterface(IID_IWbemClassObject, &queried) : E_NOINTERFACE;
  if (SUCCEEDED(result)) data = ClassObject(static_cast<IWbemClassObject*>(queried));
  Require(kGetOutputData, L"OutputDataBlock->QueryInterface(OutputDataObject)",
          WithObject(result, data));

  Variant code;
  result = Get(data, L"rwReturnCode", code);
  if (SUCCEEDED(result) && !Platform::Int32In(*code)) result = DISP_E_TYPEMISMATCH;
  // The output is read even if there is no return code.
  if (SUCCEEDED(Check(kGetOutputData, L"OutputDataObject->Get(ReturnCode)", result))) {
    *returnCode = *Platform::Int32In(*code);
  }
  if (outputSize == 0) return;

  // Only checks that there is enough memory. The property's own array then replaces this one.
  Variant bytes;
  Platform::UniqueSafeArray room(Com().MakeByteArray(outputSize));
  Require(kGetOutputData, L"SafeArrayCreateVector(OutputDataSize)",
          room != nullptr ? S_OK : E_FAIL);
  bytes.SetBytes(std::move(room));
  Require(kGetOutputData, L"OutputDataObject->Get(outputData)", Get(data, L"Data", bytes));
  CopyOutputBytes(bytes, outputSize, output);
}

void VxBiosWmi::CopyOutputBytes(const Variant& data, std::uint32_t outputSize,
                                std::uint8_t* output) const {
  SAFEARRAY* const array = Platform::BytesIn(*data);
  const auto bounds = array != nullptr ? Platform::BoundsOf(*array) : Platform::ByteArrayBounds{};
  // Each element is copied to the offset that its index gives, so an index must not be negative.
  if (array == nullptr || bounds.lower < 0) {
    logger->LogWarning(kInvalidData, class_name, kGetOutputData);
    throw StepFailed{kNotTheBlock};
  }
  if (bounds.count != outputSize) {
    logger->LogWarning(kInvalidSize, class_name, kGetOutputData, outputSize, bounds.count);
    throw StepFailed{kNotTheBlock};
  }
  for (std::int64_t index = bounds.lower; index < bounds.count; ++index) {
    Require(kGetOutputData, L"SafeArrayGetElement()",
            Platform::ReadByte(array, static_cast<std::int32_t>(index), output[index]));
  }
  if (bounds.lower == 0) return;
  // The array has no elements for the first offsets, so their bytes are unknown.
  logger->LogWarning(kInvalidData, class_name, kGetOutputData);
  throw StepFailed{kNotTheBlock};
}

}  // namespace Vx::Tessel::Server::Shared::WMI
