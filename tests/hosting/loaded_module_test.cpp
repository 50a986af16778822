#include "hosting/loaded_module.h"

#include "hosting/fake_service.h"
#include "hosting/text.h"
#include "support/memory_shortage.h"
#include "support/test.h"

namespace Vx::Hosting {
namespace {

TEST(ServiceSessionTest, GivesEverythingBackWhicheverAllocationFails) {
  FakeService counting;
  ServiceSession session(&counting);
  const std::wstring request(40, L' ');
  const std::wstring caller(40, L'c');
  bool failed = false;
  const auto execute = [&] {
    try {
      session.Execute(20, request, caller);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
  };
  Tests::FailEachAllocation(Tests::Shortage::Once, execute, [&] {
    EXPECT_EQ(counting.contexts, 0);
    EXPECT_EQ(counting.responses, 0);
  });
  EXPECT_TRUE(failed);
}

// A module whose entry point returns FALSE lacks nothing, so the error must not name anything.
TEST(LoadedModuleTest, NamesNoFaultThatItHasNotFound) {
  std::string image = Tests::ReadText(Tests::TestModulePath());
  const auto* const start = reinterpret_cast<const IMAGE_DOS_HEADER*>(image.data());
  auto* const headers = reinterpret_cast<IMAGE_NT_HEADERS64*>(image.data() + start->e_lfanew);
  // The section headers follow, and the first describes the code.
  const auto& code = *reinterpret_cast<const IMAGE_SECTION_HEADER*>(headers + 1);
  const std::size_t returnsFalse = image.find("\x31\xC0\xC3", code.PointerToRawData);
  ASSERT_LT(returnsFalse, code.PointerToRawData + code.SizeOfRawData);
  headers->OptionalHeader.AddressOfEntryPoint =
      static_cast<DWORD>(returnsFalse) - code.PointerToRawData + code.VirtualAddress;
  const Tests::TempFolder folder;
  Tests::WriteText(folder / L"module.dll", image);
  EXPECT_THAT(
      [&] { const LoadedModule module(folder / L"module.dll"); },
      Throws<WindowsError>(AllOf(Property(&WindowsError::Code, DWORD{ERROR_DLL_INIT_FAILED}),
                                 Property(&WindowsError::what, EndsWith("(error 1114)")))));
}

}  // namespace
}  // namespace Vx::Hosting
