#pragma once

#include "hosting/loaded_module.h"
#include "support/test.h"

namespace Vx::Tests {

// One service of the module that trusts the test authority, with its own store.
class ModuleTest : public testing::Test {
 protected:
  Hosting::CommandResult Execute(std::uint32_t id, const std::wstring& request) {
    return service.Execute(id, request, L"client");
  }

  PrivateStore store;
  Hosting::LoadedModule module{TestModulePath()};
  Hosting::ServiceSession service = module.NewService();
};

inline constexpr std::size_t kSystemThreads = 4;  // in system pools, which may grow at any time

}  // namespace Vx::Tests
