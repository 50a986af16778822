#pragma once

#include <string>

#include "platform/unique_handle.h"

namespace Vx::Tests {

// Runs a process named winlogon.exe, whose token can start programs in the session.
class StandInLogon {
 public:
  // `folder` receives the program and its report. Throws std::runtime_error.
  explicit StandInLogon(const std::wstring& folder);
  ~StandInLogon();

 private:
  Platform::UniqueHandle leave;
  Platform::UniqueHandle process;
};

}  // namespace Vx::Tests
