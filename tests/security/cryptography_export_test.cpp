

#include "host/cryptography_helper.h"
#include "platform/files.h"
#include "support/test.h"

// Calls only through slot numbers, like a host built by another compiler.

namespace Vx::Tessel::Security {

namespace {

struct Object {
  void* const* slots;
};

class CryptographyExportTest : public testing::Test {
 protected:
  ~CryptographyExportTest() override { EXPECT_EQ(Call<void*>(0, 1U), object); }

  // All arguments are scalars or pointers, so their number and order are the contract.
  template <typename Answer = std::uint32_t, typename... Arguments>
  Answer Call(std::size_t slot, Arguments... arguments) const {
    using Function = Answer (*)(Object*, Arguments...);
    return reinterpret_cast<Function>(object->slots[slot])(object, arguments...);
  }

  Object* const object = reinterpret_cast<Object*>(CreateCryptographyHelper());
};

TEST_F(CryptographyExportTest, OpensWhatItSealed) {
  for (const std::string_view plain :
       {std::string_view("text\0and more", 13), std::string_view()}) {
    void* sealed = nullptr;
    std::uint32_t sealedSize = 0;
    ASSERT_EQ(Call(1, plain.empty() ? "" : plain.data(), static_cast<std::uint32_t>(plain.size()),
                   L"what it is", &sealed, &sealedSize),
              0U);
    EXPECT_EQ(std::string_view(static_cast<char*>(sealed), sealedSize).find("text"),
              std::string_view::npos);
    void* opened = nullptr;
    std::uint32_t openedSize = 0;
    ASSERT_EQ(Call(2, sealed, sealedSize, &opened, &openedSize), 0U);
    EXPECT_EQ(std::string_view(static_cast<char*>(opened), openedSize), plain);
    Call<void>(4, sealed);
    Call<void>(4, opened);
  }
  Call<void>(4, nullptr);
}

TEST_F(CryptographyExportTest, LeavesTheOutputsAloneWhenItFails) {
  int untouched = 0;
  void* result = &untouched;
  std::uint32_t size = 7;
  EXPECT_NE(Call(2, "not sealed", 10, &result, &size), 0U);
  EXPECT_EQ(Call(2, nullptr, 0, &result, &size), 87U);
  EXPECT_EQ(Call(1, "x", 1, nullptr, nullptr, &size), 87U);
  EXPECT_EQ(Call(1, "x", 1, nullptr, &result, nullptr), 87U);
  EXPECT_EQ(result, &untouched);
  EXPECT_EQ(size, 7U);
}

TEST_F(CryptographyExportTest, DigestsAFile) {
  static constexpr unsigned char kDigest[] = {0x4c, 0xbb, 0xd9, 0xbe, 0x0c, 0xba, 0x68, 0x58,
                                              0x35, 0x75, 0x5f, 0x82, 0x77, 0x58, 0x70, 0x5d,
                                              0xb5, 0xa4, 0x13, 0xc5, 0x49, 0x4c, 0x34, 0x26,
                                              0x2c, 0xd2, 0x59, 0x46, 0xa7, 0x3e, 0x75, 0x82};
  const Tests::TempFolder folder;
  const std::wstring path = folder / L"zeros";
  const std::vector<std::byte> zeros(200'000);  // takes several reads
  ASSERT_EQ(Platform::CurrentMachine().files->Overwrite(path, zeros), 0U);
  unsigned char digest[32] = {};
  ASSERT_EQ(Call(3, path.c_str(), digest), 0U);
  EXPECT_EQ(std::memcmp(digest, kDigest, sizeof digest), 0);
  EXPECT_EQ(Call(3, (path + L"x").c_str(), digest), 2U);
  EXPECT_EQ(Call(3, nullptr, digest), 87U);
}

}  // namespace

}  // namespace Vx::Tessel::Security
