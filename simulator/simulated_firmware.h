#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/com.h"
#include "simulator/timeline.h"

struct tagVARIANT;

namespace Vx::Simulator {

// A PC's firmware as exposed through WMI: a locator whose namespace "\\.\root\wmi" contains the
// firmware's classes and runs its commands on a warranty block and a features block.
//
// It is the machine's Com capability. With a ClassRegistration, it also serves all other code in
// the process that creates a WMI locator. Thread-safe. Release every object that it returned before
// destroying it (see LiveObjects).
class SimulatedFirmware final : public Platform::Com {
 public:
  enum class Digits { Six, Eight };

  struct Request {
    std::wstring path;    // of the instance that ran the method
    std::wstring method;  // "zrkBIOSInt" and the output size
    std::string signature;
    std::int32_t command = 0;
    std::int32_t commandType = 0;
    std::int32_t size = 0;
    std::string data;  // bytes; also empty for a null array
    bool hasData = false;
  };

  // The warranty block starts with `bornOnDate`.
  explicit SimulatedFirmware(Digits digits = Digits::Eight, std::string bornOnDate = {});
  ~SimulatedFirmware() override;

  // Replaces this firmware with that of another machine, which has no born-on date.
  void Replace(Digits count);

  // Logs each write to the warranty block. `log` must outlive the firmware.
  void SetTimeline(Timeline& log);

  // Returns the warranty block up to its first zero byte.
  std::string BornOnDate() const;
  void SetWarrantyBlock(std::string block);

  std::vector<Request> Requests() const;

  // Makes a step return `result` from now on: "CoInitializeEx", "CoInitializeSecurity",
  // "CoCreateInstance", "ConnectServer", "SetBlanket", "GetObject CLASS", "GetMethod",
  // "SpawnInstance CLASS", "Put PROPERTY", "CreateInstanceEnum", "Next", "ExecMethod",
  // "QueryInterface OutData", "Get PROPERTY", "PutByte", or "MakeText" and "MakeByteArray", which
  // return null whatever `result` is. With a success code, the step returns no object.
  void Fail(std::string step, std::int32_t result);

  // Like Fail, but only after the next `skip` calls of the step.
  void FailAfter(std::string step, unsigned skip, std::int32_t result);
  void ClearFailures();

  void SetReturnCode(std::int32_t code);

  // Called with each property value before it is returned, so that a test can forge a reply.
  using Tamper = std::function<void(const std::wstring& property, tagVARIANT& value)>;
  void SetTamper(Tamper change);

  int LiveObjects() const { return liveObjects; }

  // The number of COM initializations that have not been undone.
  int OpenInitializations() const { return initializations; }
  int Connections() const { return connections; }

  // Returns the namespace of the most recent connection.
  std::wstring ConnectedTo() const;

  std::int32_t InitializeMultithreaded() override;
  void Uninitialize() override;
  std::int32_t InitializeSecurity(Platform::Cloaking cloaking) override;
  std::int32_t CreateWbemLocator(IWbemLocator** locator) override;
  std::int32_t SetProxyBlanket(IUnknown* proxy) override;
  wchar_t* MakeText(const wchar_t* text) override;
  tagSAFEARRAY* MakeByteArray(std::uint32_t count) override;
  std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) override;

  // Registers this firmware's locator as the process's class for CLSID_WbemLocator. COM must stay
  // initialized (multithreaded) while this object lives.
  class ClassRegistration {
   public:
    explicit ClassRegistration(SimulatedFirmware& firmware);
    ClassRegistration(const ClassRegistration&) = delete;
    ClassRegistration& operator=(const ClassRegistration&) = delete;
    ~ClassRegistration();

   private:
    unsigned long cookie = 0;
  };

 private:
  class Factory;
  class Locator;
  class Services;
  class Enumerator;
  class Object;

  struct Failure {
    unsigned skip = 0;
    std::int32_t result = 0;
  };

  // Returns whether `step` must fail now. If so, sets `result`.
  bool Fails(const std::string& step, std::int32_t& result);
  void Connected(const std::wstring& where);
  std::int32_t Run(Request request, std::string& output);
  void TamperWith(const std::wstring& property, tagVARIANT& value) const;

  mutable std::mutex mutex;
  Digits digits;
  Timeline* timeline = nullptr;
  std::string warranty;
  std::vector<Request> requests;
  std::map<std::string, Failure> failures;
  std::int32_t returnCode = 0;
  Tamper tamper;
  std::wstring connectedTo;
  std::atomic<int> liveObjects{0};
  std::atomic<int> initializations{0};
  std::atomic<int> connections{0};
};

}  // namespace Vx::Simulator
