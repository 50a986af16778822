#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "host/cryptography_helper.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "support/temp_folder.h"

// Through slot numbers alone, as a host built with another compiler calls it.

namespace Vx::Tessel::Security {

namespace {

// The object as the other compiler sees it.
struct Object {
  void* const* slots;
};

template <typename Function>
Function Slot(Object* object, std::size_t number) {
  return reinterpret_cast<Function>(object->slots[number]);
}

using Destroy = void* (*)(Object*, unsigned);
using Protect = std::uint32_t (*)(Object*, const void*, std::uint32_t, const wchar_t*, void**,
                                  std::uint32_t*);
using Unprotect = std::uint32_t (*)(Object*, const void*, std::uint32_t, void**, std::uint32_t*);
using FileSha256 = std::uint32_t (*)(Object*, const wchar_t*, unsigned char*);
using FreeResult = void (*)(Object*, void*);

class CryptographyExportTest : public testing::Test {
 protected:
  CryptographyExportTest() : object(reinterpret_cast<Object*>(CreateCryptographyHelper())) {}
  ~CryptographyExportTest() override { EXPECT_EQ(Slot<Destroy>(object, 0)(object, 1), object); }

  Object* object;
};

TEST_F(CryptographyExportTest, OpensWhatItSealed) {
  for (const std::string_view plain :
       {std::string_view("text\0and more", 13), std::string_view()}) {
    void* sealed = nullptr;
    std::uint32_t sealedSize = 0;
    ASSERT_EQ(Slot<Protect>(object, 1)(object, plain.empty() ? "" : plain.data(),
                                       static_cast<std::uint32_t>(plain.size()), L"what it is",
                                       &sealed, &sealedSize),
              0U);
    EXPECT_EQ(std::string_view(static_cast<char*>(sealed), sealedSize).find("text"),
              std::string_view::npos);
    void* opened = nullptr;
    std::uint32_t openedSize = 0;
    ASSERT_EQ(Slot<Unprotect>(object, 2)(object, sealed, sealedSize, &opened, &openedSize), 0U);
    EXPECT_EQ(std::string_view(static_cast<char*>(opened), openedSize), plain);
    Slot<FreeResult>(object, 4)(object, sealed);
    Slot<FreeResult>(object, 4)(object, opened);
  }
  Slot<FreeResult>(object, 4)(object, nullptr);
}

TEST_F(CryptographyExportTest, LeavesTheOutputsAloneWhenItFails) {
  int untouched = 0;
  void* result = &untouched;
  std::uint32_t size = 7;
  EXPECT_NE(Slot<Unprotect>(object, 2)(object, "not sealed", 10, &result, &size), 0U);
  EXPECT_EQ(Slot<Unprotect>(object, 2)(object, nullptr, 0, &result, &size), 87U);
  EXPECT_EQ(Slot<Protect>(object, 1)(object, "x", 1, nullptr, nullptr, &size), 87U);
  EXPECT_EQ(Slot<Protect>(object, 1)(object, "x", 1, nullptr, &result, nullptr), 87U);
  EXPECT_EQ(result, &untouched);
  EXPECT_EQ(size, 7U);
}

TEST_F(CryptographyExportTest, DigestsAFile) {
  const Tests::TempFolder folder;
  const std::wstring path = folder / L"abc";
  constexpr std::array content = {std::byte{'a'}, std::byte{'b'}, std::byte{'c'}};
  ASSERT_EQ(Platform::CurrentMachine().files->Overwrite(path, content), 0U);
  std::array<unsigned char, 32> digest{};
  ASSERT_EQ(Slot<FileSha256>(object, 3)(object, path.c_str(), digest.data()), 0U);
  std::string text;
  for (const unsigned char byte : digest) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  EXPECT_EQ(text, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Slot<FileSha256>(object, 3)(object, (path + L"x").c_str(), digest.data()), 2U);
  EXPECT_EQ(Slot<FileSha256>(object, 3)(object, nullptr, digest.data()), 87U);
}

}  // namespace

}  // namespace Vx::Tessel::Security
