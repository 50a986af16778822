#pragma once

#include <cstdint>

#include "host/logging.h"
#include "platform/com.h"

struct IWbemClassObject;
struct IWbemServices;

namespace Vx::Platform {
class Variant;
}

namespace Vx::Tessel::Server::Shared::WMI {

inline constexpr int kBiosRead = 1;
inline constexpr int kBiosWrite = 2;
inline constexpr int kBiosFeatures = 13;
inline constexpr int kWarranty = 16;

// The firmware's command interface in WMI. Create one for a few commands on one thread.
//
// The first command initializes COM on the calling thread and connects. The destructor disconnects
// and uninitializes COM. Calls block for as long as WMI takes. Each failing step is logged as a
// warning, and its HRESULT is returned. Throws only std::system_error (E_OUTOFMEMORY).
class VxBiosWmi {
 public:
  VxBiosWmi();
  VxBiosWmi(const VxBiosWmi&) = delete;
  VxBiosWmi& operator=(const VxBiosWmi&) = delete;
  ~VxBiosWmi();

  // Runs a command. `input` may be null if `inputSize` is 0. The caller zeroes the `outputSize`
  // bytes of `output`. Bytes that cannot be read stay zero, but the command does not fail (see
  // OutputResult). `returnCode` receives the firmware's own code, if any.
  std::int32_t ExecuteCommand(int command, int commandType, std::uint32_t inputSize,
                              const std::uint8_t* input, std::uint32_t outputSize,
                              std::uint8_t* output, std::int32_t* returnCode);

  // Returns S_OK if the last command's whole output was read, otherwise the HRESULT of the failed
  // step: that of ERROR_INVALID_DATA if the reply does not contain exactly the requested bytes, and
  // E_FAIL if the command failed or none has run.
  std::int32_t OutputResult() const { return outputResult; }

  // Connects to the namespace unless already connected. Returns false on failure.
  bool GetReady();

 private:
  using ClassObject = Platform::ComPtr<IWbemClassObject>;

  void Disconnect();

  // Logs `result` if it is a failure, and returns it.
  std::int32_t Check(const char* step, const wchar_t* function, std::int32_t result) const;

  // Like Check, but a failure ends the command. So do the steps below if they fail.
  void Require(const char* step, const wchar_t* function, std::int32_t result) const;

  ClassObject GetClass(const char* step, const wchar_t* name) const;
  ClassObject SetupInputDataBlock(int command, int commandType, std::uint32_t inputSize,
                                  const std::uint8_t* input, const ClassObject& methodInput) const;
  void CreateSafeArray(const std::uint8_t* bytes, std::uint32_t count,
                       Platform::Variant& array) const;
  void GetBiosMethodObjectPath(Platform::Variant& path) const;
  void GetOutputData(const ClassObject& outParameters, std::uint32_t outputSize,
                     std::uint8_t* output, std::int32_t* returnCode) const;
  void CopyOutputBytes(const Platform::Variant& data, std::uint32_t outputSize,
                       std::uint8_t* output) const;

  const Logging::TraceLogger* logger;
  const char* class_name;
  bool ready = false;
  bool comEntered = false;
  std::int32_t outputResult;
  Platform::ComPtr<IWbemServices> services;
};

}  // namespace Vx::Tessel::Server::Shared::WMI
