#pragma once

#include <gtest/gtest.h>

#include <windows.h>

namespace Vx::Tests {

// Replaces a function that this program imports, for every caller, while this object lives.
// `imported` is the linker's __imp_ variable, whose table may be read-only with some linkers.
template <typename Function>
class ImportOverride {
 public:
  ImportOverride(Function& imported, Function replacement) : slot(imported), real(imported) {
    Set(replacement);
  }
  ImportOverride(const ImportOverride&) = delete;
  ImportOverride& operator=(const ImportOverride&) = delete;
  ~ImportOverride() { Set(real); }

 private:
  void Set(Function function) {
    DWORD before = 0;
    ASSERT_NE(VirtualProtect(&slot, sizeof slot, PAGE_READWRITE, &before), FALSE);
    slot = function;
    EXPECT_NE(VirtualProtect(&slot, sizeof slot, before, &before), FALSE);
  }

  Function& slot;
  const Function real;
};

}  // namespace Vx::Tests
