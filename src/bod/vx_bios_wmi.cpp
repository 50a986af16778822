#include "bod/vx_bios_wmi.h"

#include <cwchar>
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

HRESULT Put(IWbemClassObject* object, const wchar_t* property, Variant& value) {
  return object->Put(property, 0, value.Get(), 0);
}

HRESULT Get(IWbemClassObject* object, const wchar_t* property, Variant& value) {
  return object->Get(property, 0, value.Receive(), nullptr, nullptr);
}

HRESULT PutInt32(IWbemClassObject* object, const wchar_t* property, std::int32_t number) {
  Variant value;
  value.SetInt32(number);
  return Put(object, property, value);
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
  if (FAILED(connected)) {
    Disconnect();
    return false;
  }
  ready = true;
  return true;
}

void VxBiosWmi::Disconnect() {
  services.Reset();
  // If initializing COM failed, another component owns the thread's apartment.
  if (comEntered) Com().Uninitialize();
  comEntered = false;
  ready = false;
}

std::int32_t VxBiosWmi::GetClass(const wchar_t* name, ClassObject& object) const {
  const UniqueBstr path = Text(name);
  return WithObject(services->GetObject(path.get(), 0, nullptr, object.Receive(), nullptr), object);
}

std::int32_t VxBiosWmi::ExecuteCommand(int command, int commandType, std::uint32_t inputSize,
                                       const std::uint8_t* input, std::uint32_t outputSize,
                                       std::uint8_t* output, std::int32_t* returnCode) {
  outputResult = E_FAIL;
  if (!ready && !GetReady()) return E_FAIL;

  wchar_t method[kMethodNameChars] = {};
  // Uses the system's formatting function, because the compiler's would be linked into the module.
  static_cast<void>(
      _snwprintf(method, std::size(method) - 1, kMethodName, static_cast<long>(outputSize)));

  ClassObject methodClass;
  HRESULT result = Check(kExecuteCommand, L"IWbemServices->GetObject(InputDataBlock)",
                         GetClass(kMethodClass, methodClass));
  if (FAILED(result)) return result;

  ClassObject methodInput;
  result = methodClass->GetMethod(method, 0, methodInput.Receive(), nullptr);
  result = Check(kExecuteCommand, L"IWbemClassObject->GetMethod(BiosWmiMethod)",
                 WithObject(result, methodInput));
  if (FAILED(result)) return result;

  ClassObject methodInstance;
  result =
      SetupInputDataBlock({command, commandType, inputSize, input}, methodInput, methodInstance);
  if (FAILED(result)) return result;

  Variant path;
  result = GetBiosMethodObjectPath(path);
  if (FAILED(result)) return result;

  const UniqueBstr pathText = Text(Platform::TextIn(*path));
  const UniqueBstr methodText = Text(method);
  ClassObject outParameters;
  result = services->ExecMethod(pathText.get(), methodText.get(), 0, nullptr, methodInstance.Get(),
                                outParameters.Receive(), nullptr);
  if (FAILED(Check(kExecuteCommand, L"IWbemServices->ExecMethod(BIOS method)", result))) {
    return result;
  }
  // The firmware has already run the command, so an unreadable reply does not make it fail.
  outputResult = GetOutputData(outParameters, outputSize, output, returnCode);
  return result;
}

std::int32_t VxBiosWmi::SetupInputDataBlock(const Input& input, const ClassObject& methodInput,
                                            ClassObject& methodInstance) const {
  ClassObject blockClass;
  HRESULT result = Check(kSetupInputDataBlock, L"IWbemServices->GetObject(InputDataBlock)",
                         GetClass(kInputBlockClass, blockClass));
  if (FAILED(result)) return result;

  ClassObject block;
  result = WithObject(blockClass->SpawnInstance(0, block.Receive()), block);
  result = Check(kSetupInputDataBlock, L"IWbemClassObject->SpawnInstance(InputDataBlockInstance)",
                 result);
  if (FAILED(result)) return result;

  result = FillInputDataBlock(input, block);
  if (FAILED(result)) return result;

  result = WithObject(methodInput->SpawnInstance(0, methodInstance.Receive()), methodInstance);
  result =
      Check(kSetupInputDataBlock, L"IWbemClassObject->SpawnInstance(BiosMethodInstance)", result);
  if (FAILED(result)) return result;

  Variant object;
  object.SetObject(block.Get());
  return Check(kSetupInputDataBlock, L"BiosMethodInstance->Put(InputDataBlockClass)",
               Put(methodInstance.Get(), L"InData", object));
}

std::int32_t VxBiosWmi::FillInputDataBlock(const Input& input, const ClassObject& block) const {
  Variant signature;
  HRESULT result =
      CreateSafeArray(kSignature, static_cast<std::uint32_t>(std::size(kSignature)), signature);
  if (FAILED(result)) return result;
  result = Check(kSetupInputDataBlock, L"InputDataBlockInstance->Put(Sign)",
                 Put(block.Get(), L"Sign", signature));
  if (FAILED(result)) return result;

  const struct {
    const wchar_t* property;
    std::int32_t value;
    const wchar_t* failure;
  } numbers[] = {
      {L"Command", input.command, L"InputDataBlockInstance->Put(Command)"},
      {L"CommandType", input.commandType, L"InputDataBlockInstance->Put(CommandType)"},
      {L"Size", static_cast<std::int32_t>(input.size), L"InputDataBlockInstance->Put(Size)"},
  };
  for (const auto& number : numbers) {
    result = Check(kSetupInputDataBlock, number.failure,
                   PutInt32(block.Get(), number.property, number.value));
    if (FAILED(result)) return result;
  }

  Variant data;
  if (input.size > 0) {
    result = CreateSafeArray(input.bytes, input.size, data);
    if (FAILED(result)) return result;
  } else {
    data.SetBytes(nullptr);
  }
  return Check(kSetupInputDataBlock, L"InputDataBlockInstance->Put(inputData)",
               Put(block.Get(), L"zrkBData", data));
}

std::int32_t VxBiosWmi::CreateSafeArray(const std::uint8_t* bytes, std::uint32_t count,
                                        Variant& array) const {
  Platform::UniqueSafeArray made(Com().MakeByteArray(count));
  if (made == nullptr) return Check(kCreateSafeArray, L"SafeArrayCreateVector()", E_FAIL);
  for (std::uint32_t i = 0; i < count; ++i) {
    const HRESULT result = Check(kCreateSafeArray, L"SafeArrayPutElement()",
                                 Com().PutByte(made.get(), static_cast<std::int32_t>(i), bytes[i]));
    if (FAILED(result)) return result;
  }
  array.SetBytes(std::move(made));
  return S_OK;
}

std::int32_t VxBiosWmi::GetBiosMethodObjectPath(Variant& path) const {
  const UniqueBstr name = Text(kMethodInstances);
  ComPtr<IEnumWbemClassObject> instances;
  HRESULT result = services->CreateInstanceEnum(
      name.get(), WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr,
      instances.Receive());
  result = Check(kGetBiosMethodObjectPath, L"IWbemServices->CreateInstanceEnum(BiosWmiMethod)",
                 WithObject(result, instances));
  if (FAILED(result)) return result;

  ClassObject instance;
  ULONG returned = 0;
  result = instances->Next(kNextTimeout, 1, instance.Receive(), &returned);
  // WMI reports neither the end of the list nor a timeout as an error, but both return no instance.
  if (SUCCEEDED(result) && !instance) {
    result = result == WBEM_S_TIMEDOUT ? static_cast<HRESULT>(WBEM_E_TIMED_OUT)
                                       : static_cast<HRESULT>(WBEM_E_NOT_FOUND);
  }
  result = Check(kGetBiosMethodObjectPath, L"IEnumWbemClassObject->Next()", result);
  if (FAILED(result)) return result;

  result = Get(instance.Get(), L"__PATH", path);
  if (SUCCEEDED(result) && Platform::TextIn(*path) == nullptr) result = DISP_E_TYPEMISMATCH;
  return Check(kGetBiosMethodObjectPath, L"IWbemClassObject->Get(path)", result);
}

std::int32_t VxBiosWmi::GetOutputData(const ClassObject& outParameters, std::uint32_t outputSize,
                                      std::uint8_t* output, std::int32_t* returnCode) const {
  Variant block;
  HRESULT result = outParameters ? Get(outParameters.Get(), L"OutData", block) : E_POINTER;
  result = Check(kGetOutputData, L"OutputDataBlockInstance->Get(OutputDataBlock)", result);
  if (FAILED(result)) return result;

  ClassObject data;
  IUnknown* const held = Platform::ObjectIn(*block);
  void* queried = nullptr;
  result = held != nullptr ? held->QueryInterface(IID_IWbemClassObject, &queried) : E_NOINTERFACE;
  if (SUCCEEDED(result)) data = ClassObject(static_cast<IWbemClassObject*>(queried));
  result = Check(kGetOutputData, L"OutputDataBlock->QueryInterface(OutputDataObject)",
                 WithObject(result, data));
  if (FAILED(result)) return result;

  Variant code;
  result = Get(data.Get(), L"rwReturnCode", code);
  if (SUCCEEDED(result) && !Platform::Int32In(*code)) result = DISP_E_TYPEMISMATCH;
  // The output is read even if there is no return code.
  if (SUCCEEDED(Check(kGetOutputData, L"OutputDataObject->Get(ReturnCode)", result))) {
    *returnCode = *Platform::Int32In(*code);
  }
  if (outputSize == 0) return S_OK;

  // Only checks that there is enough memory. The property's own array then replaces this one.
  Variant bytes;
  Platform::UniqueSafeArray room(Com().MakeByteArray(outputSize));
  if (room == nullptr) {
    return Check(kGetOutputData, L"SafeArrayCreateVector(OutputDataSize)", E_FAIL);
  }
  bytes.SetBytes(std::move(room));
  result =
      Check(kGetOutputData, L"OutputDataObject->Get(outputData)", Get(data.Get(), L"Data", bytes));
  return FAILED(result) ? result : CopyOutputBytes(bytes, outputSize, output);
}

std::int32_t VxBiosWmi::CopyOutputBytes(const Variant& data, std::uint32_t outputSize,
                                        std::uint8_t* output) const {
  SAFEARRAY* const array = Platform::BytesIn(*data);
  // Each element is copied to the offset that its index gives, so an index must not be negative.
  if (array == nullptr || Platform::BoundsOf(*array).lower < 0) {
    logger->LogWarning(kInvalidData, class_name, kGetOutputData);
    return kNotTheBlock;
  }
  const Platform::ByteArrayBounds bounds = Platform::BoundsOf(*array);
  if (bounds.count != outputSize) {
    logger->LogWarning(kInvalidSize, class_name, kGetOutputData, outputSize, bounds.count);
    return kNotTheBlock;
  }
  for (std::int64_t index = bounds.lower; index < bounds.count; ++index) {
    const HRESULT result =
        Check(kGetOutputData, L"SafeArrayGetElement()",
              Platform::ReadByte(array, static_cast<std::int32_t>(index), output[index]));
    if (FAILED(result)) return result;
  }
  if (bounds.lower == 0) return S_OK;
  // The array has no elements for the first offsets, so their bytes are unknown.
  logger->LogWarning(kInvalidData, class_name, kGetOutputData);
  return kNotTheBlock;
}

}  // namespace Vx::Tessel::Server::Shared::WMI
