#include "platform/registry.h"

#include "support/test.h"

namespace Vx::Platform {
namespace {

using namespace std::string_view_literals;

constexpr wchar_t kKey[] = L"Software\\Some\\Key";

// An empty HKEY_LOCAL_MACHINE for this process, deleted with this object. While it exists, data
// protection fails, because the emulator looks up its provider there.
class PrivateLocalMachine {
 public:
  PrivateLocalMachine() : name(L"Software\\VxTest" + std::to_wstring(GetCurrentProcessId())) {
    RegCreateKeyExW(HKEY_CURRENT_USER, name.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                    KEY_ALL_ACCESS, nullptr, &root, nullptr);
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, root);
  }
  PrivateLocalMachine(const PrivateLocalMachine&) = delete;
  PrivateLocalMachine& operator=(const PrivateLocalMachine&) = delete;
  ~PrivateLocalMachine() {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegCloseKey(root);
    RegDeleteTreeW(HKEY_CURRENT_USER, name.c_str());
  }

  void Set(const wchar_t* key, const wchar_t* value, DWORD type, const std::vector<BYTE>& data) {
    HKEY opened = nullptr;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                    nullptr, &opened, nullptr);
    // If a terminator followed a string's data, the emulator would store it, so "##" follows.
    std::vector<BYTE> bytes = data;
    bytes.insert(bytes.end(), {'#', '#'});
    RegSetValueExW(opened, value, 0, type, bytes.data(), static_cast<DWORD>(data.size()));
    RegCloseKey(opened);
  }

 private:
  std::wstring name;
  HKEY root = nullptr;
};

class RegistryTest : public testing::Test {
 protected:
  auto ReadBack(DWORD type, std::string_view bytes) {
    machine.Set(kKey, L"value", type, {bytes.begin(), bytes.end()});
    return registry.Read(kKey, L"value");
  }

  PrivateLocalMachine machine;
  const Registry& registry = *CurrentMachine().registry;
};

TEST_F(RegistryTest, TakesTheTextOfAValueHoweverItEnds) {
  const struct {
    const char* name;
    std::string_view stored;
    const wchar_t* text;
  } kCases[] = {
      {"terminated", "a\0b\0\0\0"sv, L"ab"},
      {"not terminated", "a\0b\0"sv, L"ab"},
      {"half a character at the end", "a\0b\0c"sv, L"ab"},
      {"empty", ""sv, L""},
      {"data after the terminator", "a\0\0\0b\0"sv, L"a"},
  };
  for (const auto& c : kCases) {
    const auto value = ReadBack(REG_SZ, c.stored);
    ASSERT_TRUE(value) << c.name;
    EXPECT_EQ(value->type, std::uint32_t{REG_SZ});
    EXPECT_EQ(value->data.size(), c.stored.size());
    EXPECT_EQ(TextOf(*value), c.text) << c.name;
  }
}

TEST_F(RegistryTest, RefusesAValueBeyondTheBoundButSeesIt) {
  EXPECT_TRUE(ReadBack(REG_BINARY, std::string(1U << 20, 'x')));
  EXPECT_EQ(ReadBack(REG_BINARY, std::string((1U << 20) + 1, 'x')).Error(),
            ErrorCode{ERROR_FILE_TOO_LARGE});
  EXPECT_TRUE(registry.Exists(kKey, L"value"));
}

TEST_F(RegistryTest, TellsAMissingKeyAndAMissingValueAlike) {
  ReadBack(REG_SZ, "");
  for (const wchar_t* key : {kKey, L"Software\\None"}) {
    EXPECT_EQ(registry.Read(key, L"none").Error(), ErrorCode{ERROR_FILE_NOT_FOUND});
    EXPECT_FALSE(registry.Exists(key, L"none"));
  }
}

}  // namespace
}  // namespace Vx::Platform
