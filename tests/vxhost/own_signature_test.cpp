#include "vxhost/subscriptions/own_signature.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include <windows.h>

#include "platform/unique_handle.h"
#include "support/test_pki.h"

namespace Vx::Hosting::Tool {
namespace {

// What becomes of a tool that is `program`.
std::string Fate(const std::wstring& program) {
  try {
    RefusePinnedSignature(program, Tessel::Security::GeneralKeys(),
                          Tessel::Security::RestrictedKeys());
    return "runs";
  } catch (const std::runtime_error& error) {
    const std::string why = error.what();
    return why.find("is signed with a pinned key") != std::string::npos ? "pinned" : why;
  }
}

TEST(OwnSignatureTest, RefusesAGoodSignatureWithAKeyOfEitherSetWhereverTheFileIs) {
  static constexpr struct {
    const wchar_t* file;
    const char* fate;
  } kCases[] = {{L"pinned.exe", "pinned"}, {L"general.exe", "pinned"}, {L"expired.exe", "pinned"},
                {L"unpinned.exe", "runs"}, {L"unsigned.exe", "runs"},  {L"tampered.exe", "runs"},
                {L"appended.exe", "runs"}};
  for (const auto& c : kCases) {
    EXPECT_EQ(Fate(Tests::PkiFile(c.file)), c.fate) << testing::PrintToString(c.file);
  }
}

TEST(OwnSignatureTest, RefusesAFileThatAnotherProcessKeepsItFromReading) {
  const std::wstring program = Tests::PkiFile(L"unsigned.exe");
  const auto held = Platform::AdoptFile(
      CreateFileW(program.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_NE(held, nullptr);
  EXPECT_NE(Fate(program).find("cannot read "), std::string::npos);
}

}  // namespace
}  // namespace Vx::Hosting::Tool
