#pragma once

#include "hosting/loaded_module.h"
#include "support/test.h"

namespace Vx::Tests {

// The module that trusts the tests' own authority, loaded as its host loads it, and one service of
// it with a store of its own.
class ModuleTest : public testing::Test {
 protected:
  Hosting::CommandResult Execute(std::uint32_t id, const std::wstring& request) {
    return service.Execute(id, request, L"client");
  }

  PrivateStore store;
  Hosting::LoadedModule module{TestModulePath()};
  Hosting::ServiceSession service = module.NewService();
};

// A few threads belong to the system's own pools, which grow when they like.
inline constexpr std::size_t kSystemThreads = 4;

}  // namespace Vx::Tests
