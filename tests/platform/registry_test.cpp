#include "platform/registry.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include <windows.h>

#include "platform/machine.h"
#include "support/private_local_machine.h"

namespace Vx::Platform {
namespace {

constexpr wchar_t kKey[] = L"Software\\Some\\Key";

class RegistryTest : public testing::Test {
 protected:
  void Store(const wchar_t* name, DWORD type, std::string_view bytes) {
    machine.Set(kKey, name, type, {bytes.begin(), bytes.end()});
  }

  Tests::PrivateLocalMachine machine;
  const Registry& registry = *CurrentMachine().registry;
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
  Store(L"number", REG_DWORD, "1234");
  const auto value = registry.Read(kKey, L"number");
  ASSERT_TRUE(value);
  EXPECT_EQ(value->type, static_cast<std::uint32_t>(REG_DWORD));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(value->data.data()), value->data.size()),
            "1234");
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
