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

// A PC's firmware behind WMI, in this process: a locator whose namespace "\\.\root\wmi" holds the
// firmware's classes and runs its commands on a warranty block and a features block.
//
// Reached in two ways: as the machine's Com capability, or, through a ClassRegistration, by
// everything in the process that creates a WMI locator. Any thread. Objects that it handed out must
// be released before it goes; LiveObjects() tells.
class SimulatedFirmware final : public Platform::Com {
 public:
  enum class Digits { Six, Eight };

  // One command as it arrived.
  struct Request {
    std::wstring path;    // of the instance that the method ran on
    std::wstring method;  // "zrkBIOSInt" and the output size
    std::string signature;
    std::int32_t command = 0;
    std::int32_t commandType = 0;
    std::int32_t size = 0;
    std::string data;  // bytes; empty for a null array too
    bool hasData = false;
  };

  // `bornOnDate` is the start of the warranty block.
  explicit SimulatedFirmware(Digits digits = Digits::Eight, std::string bornOnDate = {});
  ~SimulatedFirmware() override;

  // Another machine's firmware from now on, without a born-on date.
  void Replace(Digits count);

  // What is written to the warranty block is told there; it has to live as long as the firmware.
  void SetTimeline(Timeline& log);

  // What the warranty block holds up to its first zero byte.
  std::string BornOnDate() const;
  void SetWarrantyBlock(std::string block);

  std::vector<Request> Requests() const;

  // Lets the step answer `result` from now on. Steps are named "CoInitializeEx",
  // "CoInitializeSecurity", "CoCreateInstance", "ConnectServer", "SetBlanket", "GetObject CLASS",
  // "GetMethod", "SpawnInstance CLASS", "Put PROPERTY", "CreateInstanceEnum", "Next", "ExecMethod",
  // "QueryInterface OutData", "Get PROPERTY"; and of memory "MakeText", "MakeByteArray" (both only
  // whether they fail) and "PutByte". A success lets the step claim it and hand out nothing.
  void Fail(std::string step, std::int32_t result);

  // The same from the next call but `skip` of the step on.
  void FailAfter(std::string step, unsigned skip, std::int32_t result);
  void ClearFailures();

  // The firmware's own answer to every command.
  void SetReturnCode(std::int32_t code);

  // Called with every property value that is about to leave, to make a hostile reply of it.
  using Tamper = std::function<void(const std::wstring& property, tagVARIANT& value)>;
  void SetTamper(Tamper change);

  int LiveObjects() const { return liveObjects; }

  // COM entries that were not left again.
  int OpenInitializations() const { return initializations; }
  int Connections() const { return connections; }

  // The namespace that the last connection asked for.
  std::wstring ConnectedTo() const;

  std::int32_t InitializeMultithreaded() override;
  void Uninitialize() override;
  std::int32_t InitializeSecurity() override;
  std::int32_t CreateWbemLocator(IWbemLocator** locator) override;
  std::int32_t SetProxyBlanket(IUnknown* proxy) override;
  wchar_t* MakeText(const wchar_t* text) override;
  tagSAFEARRAY* MakeByteArray(std::uint32_t count) override;
  std::int32_t PutByte(tagSAFEARRAY* bytes, std::int32_t index, std::uint8_t value) override;

  // Registers this firmware's locator as the process's own class for CLSID_WbemLocator. COM must be
  // entered (multithreaded) for its whole life.
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

  // Whether `step` is to fail now; `result` receives how.
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
