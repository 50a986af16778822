#include "security/command_line_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vx::Tessel::Security {

namespace {

class RecordingFacade final : public VxAuthenticodeFacadeBase {
 public:
  bool IsFileTrusted(const wchar_t* path) override {
    paths.emplace_back(path);
    return true;
  }
  bool IsFileTrustedRestricted(const wchar_t*) override { return false; }
  bool IsDropboxFileTrusted(const wchar_t*) override { return false; }

  std::vector<std::wstring> paths;
};

TEST(IsCommandLineTrusted, ChecksTheFirstWord) {
  const struct {
    const char* name;
    std::wstring commandLine;
    const wchar_t* checked;  // null: refused without a check
  } kCases[] = {
      {"one word", L"C:\\a.exe", L"C:\\a.exe"},
      {"with arguments", L"C:\\a.exe /b \"c d\"", L"C:\\a.exe"},
      {"quoted", L"\"C:\\Program Files\\a.exe\" /b", L"C:\\Program Files\\a.exe"},
      {"quotes inside the word", L"C:\"\\Program Files\"\\a.exe", L"C:\\Program Files\\a.exe"},
      {"blanks in front", L"  \t C:\\a.exe", L"C:\\a.exe"},
      {"not quoted though it has blanks", L"C:\\Program Files\\a.exe", L"C:\\Program"},
      {"no closing quote", L"\"C:\\a b.exe", L"C:\\a b.exe"},
      {"empty", L"", nullptr},
      {"blanks only", L"   ", nullptr},
      {"a NUL inside", std::wstring(L"C:\\a.exe\0 x", 11), nullptr},
      {"longer than Windows takes", std::wstring(32768, L'a'), nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    RecordingFacade facade;
    EXPECT_EQ(IsCommandLineTrusted(facade, c.commandLine), c.checked != nullptr);
    const auto checked =
        c.checked != nullptr ? std::vector<std::wstring>{c.checked} : std::vector<std::wstring>{};
    EXPECT_EQ(facade.paths, checked);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Security
