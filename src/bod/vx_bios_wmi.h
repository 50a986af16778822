#pragma once

#include <cstdint>

#include "host/logging.h"
#include "platform/com_ptr.h"

struct IWbemClassObject;
struct IWbemServices;

namespace Vx::Platform {
class Variant;
}

namespace Vx::Tessel::Server::Shared::WMI {

// The firmware's commands and what they act on.
inline constexpr int kBiosRead = 1;
inline constexpr int kBiosWrite = 2;
inline constexpr int kBiosFeatures = 13;
inline constexpr int kWarranty = 16;

// The firmware's command interface in WMI: one object is one short conversation, on one thread.
//
// Connects with the first command and enters COM on the calling thread for it, until the object
// goes. Calls block for as long as WMI takes. Each failing step is logged as a warning and answered
// with its HRESULT; the only exception is std::system_error (E_OUTOFMEMORY) when no text can be
// made for a call.
class VxBiosWmi {
 public:
  VxBiosWmi();
  VxBiosWmi(const VxBiosWmi&) = delete;
  VxBiosWmi& operator=(const VxBiosWmi&) = delete;
  ~VxBiosWmi();

  // Runs a command. `input` may be null when `inputSize` is 0; `output` has room for `outputSize`
  // bytes, comes zero-filled and keeps its content when the firmware's reply cannot be read, which
  // is no failure. `returnCode` receives the firmware's own code, uninterpreted, when it gave one.
  std::int32_t ExecuteCommand(int command, int commandType, std::uint32_t inputSize,
                              const std::uint8_t* input, std::uint32_t outputSize,
                              std::uint8_t* output, std::int32_t* returnCode);

  // Connects to the namespace once; false when that failed.
  bool GetReady();

 private:
  using ClassObject = Platform::ComPtr<IWbemClassObject>;

  struct Input {
    int command;
    int commandType;
    std::uint32_t size;
    const std::uint8_t* bytes;
  };

  void Disconnect();
  std::int32_t GetClass(const wchar_t* name, ClassObject& object) const;
  std::int32_t SetupInputDataBlock(const Input& input, const ClassObject& methodInput,
                                   ClassObject& methodInstance) const;
  std::int32_t FillInputDataBlock(const Input& input, const ClassObject& block) const;
  std::int32_t GetBiosMethodObjectPath(Platform::Variant& path) const;
  std::int32_t GetOutputData(const ClassObject& outParameters, std::uint32_t outputSize,
                             std::uint8_t* output, std::int32_t* returnCode) const;
  std::int32_t CopyOutputBytes(const Platform::Variant& data, std::uint32_t outputSize,
                               std::uint8_t* output) const;
  std::int32_t CreateSafeArray(const std::uint8_t* bytes, std::uint32_t count,
                               Platform::Variant& array) const;

  // Logs a failing `result` and answers it.
  std::int32_t Check(const char* step, const wchar_t* function, std::int32_t result) const;

  const Logging::TraceLogger* logger;
  const char* class_name;
  bool ready = false;
  bool comEntered = false;
  Platform::ComPtr<IWbemServices> services;
};

}  // namespace Vx::Tessel::Server::Shared::WMI
