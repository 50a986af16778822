#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/machine.h"

namespace Vx::Simulator {

// Wraps every capability of a machine, counts the calls that can fail, and makes selected ones fail
// as they would in Windows: a Result or an error code reports "access denied", a query returns
// nothing, and an interface that reports errors as exceptions throws E_ACCESSDENIED.
//
// A fault walk repeats one scenario: in run n, call n fails. It ends with the first run that makes
// no more than n calls (see Calls). Thread-safe.
class FaultInjection {
 public:
  FaultInjection() = default;
  FaultInjection(const FaultInjection&) = delete;
  FaultInjection& operator=(const FaultInjection&) = delete;

  // Wraps the capabilities of `machine`. Call at most once, in the change passed to a MachineScope.
  void Install(Platform::Machine& machine);

  // Makes call number `index` fail. The next call has number zero.
  void FailCall(std::size_t index);

  // Makes every call with this name ("Files.Read") fail after letting the next `skip` succeed.
  void FailNamed(const std::string& name, std::size_t skip = 0);

  // Returns the name given to FailNamed if no such call has failed since, or an empty string.
  std::string Unused() const;

  // Stops injecting failures and resets the count.
  void Clear();

  // Returns the names of the calls since the last FailCall, FailNamed or Clear.
  std::vector<std::string> Calls() const;

  // Counts a call and returns whether it must fail. Used by the wrappers.
  bool Fails(const char* name);

 private:
  template <typename Faulty, typename Capability>
  void Decorate(Capability*& capability);

  mutable std::mutex mutex;  // guards everything below
  std::vector<std::string> calls;
  std::optional<std::size_t> failingCall;
  std::string failingName;
  std::size_t skipped = 0;
  bool used = false;  // a call named failingName has failed

  std::vector<std::shared_ptr<void>> decorators;
};

}  // namespace Vx::Simulator
