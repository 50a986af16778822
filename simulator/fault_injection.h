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

// Stands between a program and every capability of its machine, counts the calls that Windows may
// refuse, and lets one of them be refused in Windows' way: a Result or an error code carries
// "access denied", a question has no answer, an interface that throws throws the HRESULT of it.
//
// A fault walk runs the same thing again and again: in run n call n fails, until a run comes whose
// call n does not exist (Calls() is no longer than n). Any thread.
class FaultInjection {
 public:
  FaultInjection() = default;
  FaultInjection(const FaultInjection&) = delete;
  FaultInjection& operator=(const FaultInjection&) = delete;

  // Puts decorators over what `machine` names; for the change of a MachineScope. At most once.
  void Install(Platform::Machine& machine);

  // From now on, counted from zero, call `index` fails.
  void FailCall(std::size_t index);

  // The calls of this name ("Files.Read") fail from now on, all but the first `skip`.
  void FailNamed(const std::string& name, std::size_t skip = 0);

  // The name of the last FailNamed if no call of it has failed since, or an empty text.
  std::string Unused() const;

  // Nothing fails any more; counting starts again.
  void Clear();

  // Names of the calls since the last FailCall, FailNamed or Clear.
  std::vector<std::string> Calls() const;

  // Counts a call; whether it is to fail. For the decorators.
  bool Fails(const char* name);

 private:
  template <typename Faulty, typename Capability>
  void Decorate(Capability*& capability);

  mutable std::mutex mutex;  // guards what follows
  std::vector<std::string> calls;
  std::optional<std::size_t> failingCall;
  std::string failingName;
  std::size_t skipped = 0;
  bool used = false;  // a call of failingName has failed

  std::vector<std::shared_ptr<void>> decorators;
};

}  // namespace Vx::Simulator
