#pragma once

#include <string>

#include "platform/unique_handle.h"

namespace Vx::Tests {

// A running process named winlogon.exe, whose token is used to start programs in the session. Ends
// with this object.
class StandInLogon {
 public:
  // `folder` receives the program and its report. Throws std::runtime_error.
  explicit StandInLogon(const std::wstring& folder);
  StandInLogon(const StandInLogon&) = delete;
  StandInLogon& operator=(const StandInLogon&) = delete;
  ~StandInLogon();

 private:
  Platform::UniqueHandle leave;
  Platform::UniqueHandle process;
};

}  // namespace Vx::Tests
