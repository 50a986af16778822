#include "platform/data_protection.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <windows.h>

#include "platform/files.h"
#include "platform/machine.h"
#include "support/temp_folder.h"

namespace Vx::Platform {
namespace {

using Bytes = std::vector<std::byte>;

Bytes Pattern(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::byte>(i * 31 % 251);
  return bytes;
}

std::string Hex(const Bytes& bytes) {
  std::string text;
  for (const std::byte b : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[std::to_integer<unsigned>(b) >> 4];
    text += kDigits[std::to_integer<unsigned>(b) & 15];
  }
  return text;
}

class DataProtectionTest : public testing::Test {
 protected:
  const DataProtection& protection = *CurrentMachine().dataProtection;
  Tests::TempFolder folder;
};

TEST_F(DataProtectionTest, OpensWhatItSealed) {
  for (const std::size_t size : {1U, 100U, 70'000U}) {
    const Bytes plain = Pattern(size);
    const auto sealed = protection.Protect(plain, L"a description");
    ASSERT_TRUE(sealed) << size;
    const auto opened = protection.Unprotect(*sealed);
    ASSERT_TRUE(opened) << size;
    EXPECT_EQ(*opened, plain);
    if (size == 1) continue;
    EXPECT_EQ(std::search(sealed->begin(), sealed->end(), plain.begin(), plain.end()),
              sealed->end())
        << "readable";
  }
}

TEST_F(DataProtectionTest, RefusesDamagedContent) {
  const auto sealed = protection.Protect(Pattern(500), L"");
  ASSERT_TRUE(sealed);
  const struct {
    const char* name;
    void (*damage)(Bytes&);
  } kCases[] = {
      {"first byte", [](Bytes& b) { b.front() ^= std::byte{1}; }},
      {"last byte", [](Bytes& b) { b.back() ^= std::byte{1}; }},
      {"cut by one", [](Bytes& b) { b.pop_back(); }},
      {"nothing left", [](Bytes& b) { b.clear(); }},
      {"plain content", [](Bytes& b) { b = Pattern(500); }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes damaged = *sealed;
    c.damage(damaged);
    const auto opened = protection.Unprotect(damaged);
    EXPECT_FALSE(opened);
    EXPECT_NE(opened.Error(), 0U);
  }
}

TEST_F(DataProtectionTest, MakesUuidsThatDifferAndHaveTheTextForm) {
  const auto first = protection.NewUuid();
  const auto second = protection.NewUuid();
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);
  EXPECT_NE(*first, *second);
  ASSERT_EQ(first->size(), 36U);
  for (std::size_t i = 0; i < first->size(); ++i) {
    const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
    const auto* allowed = hyphen ? L"-" : L"0123456789abcdef";
    EXPECT_EQ(first->find_first_of(allowed, i), i) << "character " << i;
  }
}

TEST_F(DataProtectionTest, HashesTheWholeFile) {
  const std::wstring path = folder / L"hashed.bin";
  // The second is longer than one piece that is read.
  const struct {
    std::size_t size;
    const char* digest;
  } kCases[] = {
      {0, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {200'000, "fb1d8fabac622cd16fe7b9fb8bc6100515dc417bd56d036e496a49d4c20f63b8"},
  };
  for (const auto& c : kCases) {
    ASSERT_EQ(CurrentMachine().files->Overwrite(path, Pattern(c.size)), 0U);
    const auto digest = protection.FileSha256(path);
    ASSERT_TRUE(digest) << c.size;
    EXPECT_EQ(Hex(*digest), c.digest);
  }
  EXPECT_EQ(protection.FileSha256(folder / L"none").Error(),
            static_cast<ErrorCode>(ERROR_FILE_NOT_FOUND));
}

}  // namespace
}  // namespace Vx::Platform
