#include "security/authenticode_helper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "security/authenticode_facade.h"
#include "security/fake_trust.h"
#include "security/file_trust.h"
#include "support/log_capture.h"
#include "support/test_pki.h"

namespace Vx::Tessel::Security {

namespace {

using Platform::SignatureVerdict;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t Code(std::uint32_t hresult) {
  return static_cast<std::int32_t>(hresult);
}
constexpr auto kUntrustedRoot = Code(0x800B0109);
constexpr auto kExpired = Code(0x800B0101);
constexpr auto kBadDigest = Code(0x80096010);
constexpr auto kNoSignature = Code(0x800B0100);

// A signature whose public key is the one byte `key`.
SignatureVerdict Signed(std::int32_t result, unsigned char key, std::uint32_t more = 0) {
  return {.result = result,
          .secondaryCount = more,
          .signer = Platform::Signer{.publicKey = {std::byte{key}},
                                     .subject = L"CN=" + std::to_wstring(key),
                                     .names = Platform::SignerNames{}}};
}

class AuthenticodeHelperTest : public testing::Test {
 protected:
  Tests::FakeTrust trust;
  Platform::MachineScope scope{
      [this](Platform::Machine& machine) { machine.trustProvider = &trust; }};
  VxAuthenticodeHelper helper;
};

std::vector<std::string> Keys(const std::vector<SignatureRecord>& records) {
  std::vector<std::string> keys;
  keys.reserve(records.size());
  for (const auto& record : records) keys.push_back(record.public_key);
  return keys;
}

TEST_F(AuthenticodeHelperTest, AsksForEverySignatureThatTheFirstAnswerCounts) {
  // Later counts are not believed: only the first call reports the number.
  trust.embedded = {Signed(0, 0xA1, 2), Signed(kBadDigest, 0xB2, 9), Signed(kExpired, 0xC3, 9)};
  EXPECT_THAT(Keys(helper.CollectSignatures(L"C:\\f", SignatureKind::Embedded)),
              ElementsAre("a1", "c3"));
  trust.inCatalog = {Signed(0, 0x11, 1), Signed(0, 0x12)};
  EXPECT_THAT(Keys(helper.CollectSignatures(L"C:\\f", SignatureKind::Catalog)),
              ElementsAre("11", "12"));
  EXPECT_THAT(trust.asked,
              ElementsAre(L"embedded C:\\f 0", L"embedded C:\\f 1", L"embedded C:\\f 2",
                          L"catalog C:\\x.cat 0", L"catalog C:\\x.cat 1"));
}

TEST_F(AuthenticodeHelperTest, EndsForACountThatNoRealFileHas) {
  trust.embedded = {Signed(0, 1, 0xFFFFFFFF)};
  EXPECT_EQ(helper.CollectSignatures(L"C:\\f", SignatureKind::Embedded).size(), 1U);
  EXPECT_LE(trust.asked.size(), 256U);
}

TEST_F(AuthenticodeHelperTest, CollectsOnlySignaturesWhoseResultCanMatter) {
  static constexpr struct {
    std::int32_t result;
    bool collected;
    bool trusted;
  } kCases[] = {{0, true, true},
                {kExpired, true, true},
                {kUntrustedRoot, true, false},
                {kBadDigest, false, false},
                {kNoSignature, false, false},
                {1, false, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.result);
    trust.embedded = {Signed(c.result, 1)};
    const auto records = helper.CollectSignatures(L"C:\\f", SignatureKind::Embedded);
    EXPECT_EQ(records.size(), c.collected ? 1U : 0U);
    EXPECT_EQ(VxAuthenticodeHelper::IsTrustedByWindows(records), c.trusted);
  }
}

TEST_F(AuthenticodeHelperTest, LogsSubjectsAndNamesThatCannotBeRead) {
  trust.embedded = {Signed(0, 1, 2), Signed(0, 2), Signed(0, 3)};
  trust.embedded[1].signer->names.reset();
  trust.embedded[2].signer.reset();
  const Tests::LogCapture log;
  EXPECT_THAT(Keys(helper.CollectSignatures(L"C:\\f", SignatureKind::Embedded)),
              ElementsAre("01", "02"));
  EXPECT_THAT(log.Lines(), ElementsAre(L"info|Subject = CN=1", L"info|Subject = CN=2",
                                       L"error|Error while retrieving Subject field.",
                                       L"error|Error while retrieving Subject field."));
}

TEST_F(AuthenticodeHelperTest, LogsTheStepAtWhichACatalogSearchFailed) {
  using Platform::CatalogStep;
  static constexpr struct {
    CatalogStep step;
    const wchar_t* function;
  } kCases[] = {{CatalogStep::AcquireContext, L"CryptCATAdminAcquireContext2"},
                {CatalogStep::OpenFile, L"CreateFileW"},
                {CatalogStep::Hash, L"CryptCATAdminCalcHashFromFileHandle2"},
                {CatalogStep::FindCatalog, L"CryptCATAdminEnumCatalogFromHash"}};
  for (const auto& c : kCases) {
    trust.catalogFailure = {.step = c.step, .error = 1168};
    const Tests::LogCapture log;
    EXPECT_THAT(helper.CollectSignatures(L"C:\\f", SignatureKind::Catalog), IsEmpty());
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"info|Security - GetSecurityCatalogInfo - File = C:\\f",
                            L"error|Security - GetSecurityCatalogInfo - Failed during " +
                                std::wstring(c.function) + L". Error Code = 1168"));
  }
}

TEST_F(AuthenticodeHelperTest, ComparesKeysAsExactText) {
  const std::vector<SignatureRecord> records = {
      {.public_key = "00", .trust_result = 0, .names = {}},
      {.public_key = "ab cd", .trust_result = 0, .names = {}}};
  for (const std::string_view pinned : {"ab cd", "AB CD", "ab", "ab cd ef", ""}) {
    EXPECT_EQ(VxAuthenticodeHelper::IsKeyPinned(records, {&pinned, 1}), pinned == "ab cd")
        << pinned;
  }
  EXPECT_FALSE(VxAuthenticodeHelper::IsKeyPinned(records, {}));
}

TEST_F(AuthenticodeHelperTest, TakesAcceptanceAndPinFromDifferentSignatures) {
  static constexpr std::string_view kPins[] = {"0a"};
  static constexpr struct {
    const char* name;
    std::int32_t pinnedResult;
    std::int32_t otherResult;
    bool trusted;
  } kCases[] = {
      {"both verified", 0, 0, true},
      {"pinned one has an untrusted root, the other is verified", kUntrustedRoot, 0, true},
      {"pinned one is expired", kExpired, kBadDigest, true},
      {"pinned one has an untrusted root", kUntrustedRoot, kUntrustedRoot, false},
      {"pinned one is broken", kBadDigest, 0, false}};
  const Tests::ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    trust.inCatalog = {Signed(c.otherResult, 0x0B)};
    trust.embedded = {Signed(c.otherResult, 0x0C, 1), Signed(c.pinnedResult, 0x0A)};
    EXPECT_EQ(JudgeFile(path, kPins).trusted, c.trusted);
  }
}

TEST_F(AuthenticodeHelperTest, ComparesTheDropboxNameExactly) {
  const Tests::ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  const struct {
    std::wstring commonName;
    std::int32_t result;
    bool trusted;
  } kCases[] = {{L"Dropbox, Inc", 0, true},
                {L"Dropbox, Inc", kUntrustedRoot, false},
                {L"dropbox, inc", 0, false},
                {std::wstring(L"Dropbox, Inc\0.evil", 18), 0, false},
                {L"", 0, false}};
  for (const auto& c : kCases) {
    trust.embedded = {Signed(c.result, 1)};
    trust.embedded[0].signer->names->commonName = c.commonName;
    trust.inCatalog = {Signed(0, 2)};
    const Tests::LogCapture log;
    EXPECT_EQ(VxAuthenticodeFacade().IsDropboxFileTrusted(path.c_str()), c.trusted);
    EXPECT_EQ(log.Lines().front(), L"info|Starting validation of Dropbox file.");
    EXPECT_EQ(log.Has(L"error|Dropbox file is not trusted by windows."),
              c.result == kUntrustedRoot);
  }
}

}  // namespace

}  // namespace Vx::Tessel::Security
