#include "vxhost/subscriptions/signing_keys.h"

#include "support/test.h"

namespace Vx::Hosting::Tool {
namespace {

// trust_test.sh tests which signatures are rejected.
TEST(OwnSignatureTest, RefusesAFileThatAnotherProcessKeepsItFromReading) {
  const std::wstring program = Tests::PkiFile(L"unsigned.exe");
  const auto held = Platform::AdoptFile(
      CreateFileW(program.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_NE(held, nullptr);
  EXPECT_THAT([&] { RefusePinnedSignature(program, Tessel::Security::GeneralKeys(), {}); },
              ThrowsMessage<std::runtime_error>(HasSubstr("cannot read ")));
}

}  // namespace
}  // namespace Vx::Hosting::Tool
