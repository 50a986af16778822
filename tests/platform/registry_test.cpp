#include "platform/registry.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include "platform/machine.h"

namespace Vx::Platform {
namespace {

constexpr wchar_t kKey[] = L"Software\\Some\\Key";

// HKEY_LOCAL_MACHINE of this process is a throwaway key meanwhile.
class RegistryTest : public testing::Test {
 protected:
  void SetUp() override {
    root = L"Software\\vx-test-" + std::to_wstring(GetCurrentProcessId());
    HKEY machine = nullptr;
    ASSERT_EQ(RegCreateKeyW(HKEY_CURRENT_USER, root.c_str(), &machine), ERROR_SUCCESS);
    ASSERT_EQ(RegCreateKeyW(machine, kKey, &key), ERROR_SUCCESS);
    ASSERT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, machine), ERROR_SUCCESS);
    RegCloseKey(machine);
  }

  void TearDown() override {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegCloseKey(key);
    RegDeleteTreeW(HKEY_CURRENT_USER, root.c_str());
  }

  // Stores `size` bytes as they are. What follows them in the buffer is not zero: the emulator adds
  // a terminator that it finds there.
  void Store(const wchar_t* name, DWORD type, std::string_view bytes) {
    std::string buffer(bytes);
    buffer += "####";
    ASSERT_EQ(RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(buffer.data()),
                             static_cast<DWORD>(bytes.size())),
              ERROR_SUCCESS);
  }

  const Registry& registry = *CurrentMachine().registry;
  std::wstring root;
  HKEY key = nullptr;
};

TEST_F(RegistryTest, TakesTheTextOfAValueHoweverItEnds) {
  using std::string_view_literals::operator""sv;
  const struct {
    const char* name;
    std::string_view stored;
    const wchar_t* text;
  } kCases[] = {
      {"terminated", "a\0b\0\0\0"sv, L"ab"},
      {"not terminated", "a\0b\0"sv, L"ab"},
      {"half a character at the end", "a\0b\0c"sv, L"ab"},
      {"half a character alone", "a"sv, L""},
      {"empty", ""sv, L""},
      {"more behind the terminator", "a\0\0\0b\0"sv, L"a"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Store(L"text", REG_SZ, c.stored);
    const auto value = registry.Read(kKey, L"text");
    ASSERT_TRUE(value);
    EXPECT_EQ(value->type, static_cast<std::uint32_t>(REG_SZ));
    EXPECT_EQ(value->data.size(), c.stored.size());
    EXPECT_EQ(TextOf(*value), c.text);
  }
}

TEST_F(RegistryTest, GivesTypeAndBytesAsTheyAreStored) {
  Store(L"number", REG_DWORD, std::string_view("\x01\x02\x03\x04", 4));
  const auto value = registry.Read(kKey, L"number");
  ASSERT_TRUE(value);
  EXPECT_EQ(value->type, static_cast<std::uint32_t>(REG_DWORD));
  EXPECT_EQ(value->data,
            (std::vector<std::byte>{std::byte{1}, std::byte{2}, std::byte{3}, std::byte{4}}));
}

TEST_F(RegistryTest, RefusesAValueBeyondTheBoundButSeesIt) {
  Store(L"huge", REG_BINARY, std::string((1U << 20) + 1, 'x'));
  EXPECT_EQ(registry.Read(kKey, L"huge").Error(), static_cast<ErrorCode>(ERROR_FILE_TOO_LARGE));
  EXPECT_TRUE(registry.Exists(kKey, L"huge"));
}

TEST_F(RegistryTest, TellsAMissingKeyAndAMissingValueAlike) {
  EXPECT_EQ(registry.Read(kKey, L"none").Error(), static_cast<ErrorCode>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(registry.Read(L"Software\\None", L"none").Error(),
            static_cast<ErrorCode>(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(registry.Exists(kKey, L"none"));
  EXPECT_FALSE(registry.Exists(L"Software\\None", L"none"));
}

}  // namespace
}  // namespace Vx::Platform
