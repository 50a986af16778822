#include "security/authenticode_facade.h"

#include "support/test.h"

namespace Vx::Tessel::Security {

namespace {

class RecordingFacade final : public VxAuthenticodeFacadeBase {
 public:
  bool IsFileTrusted(const wchar_t* path) override {
    checked += path;
    return true;
  }
  bool IsFileTrustedRestricted(const wchar_t*) override { return false; }
  bool IsDropboxFileTrusted(const wchar_t*) override { return false; }

  std::wstring checked;
};

TEST(IsCommandLineTrusted, ChecksTheFirstWord) {
  const struct {
    const char* name;
    std::wstring commandLine;
    const wchar_t* checked;  // null if rejected without a check
  } kCases[] = {
      {"the longest arguments", L"C:\\a.exe " + std::wstring(32766 - 9, L'b'), L"C:\\a.exe"},
      {"quoted", L"\"C:\\Program Files\\a.exe\" /b", L"C:\\Program Files\\a.exe"},
      {"quotes inside the word", L"C:\"\\Program Files\"\\a.exe", L"C:\\Program Files\\a.exe"},
      {"leading blanks", L"  \t C:\\a.exe", L"C:\\a.exe"},
      {"unquoted path with blanks", L"C:\\Program Files\\a.exe", L"C:\\Program"},
      {"empty", L"", nullptr},
      {"a NUL inside", std::wstring(L"C:\\a.exe\0 x", 11), nullptr},
      {"longer than Windows accepts", std::wstring(32767, L'a'), nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    RecordingFacade facade;
    EXPECT_EQ(IsCommandLineTrusted(facade, c.commandLine), c.checked != nullptr);
    EXPECT_EQ(facade.checked, c.checked != nullptr ? c.checked : L"");
  }
}

}  // namespace

}  // namespace Vx::Tessel::Security
