#include "security/authenticode_facade.h"

#include "platform/files.h"
#include "security/file_trust.h"
#include "support/memory_shortage.h"
#include "support/test.h"

// Uses real signatures, files and folders, and the test authority's keys.

namespace Vx::Tessel::Security {

namespace {

using Tests::PkiFile;

constexpr wchar_t kPinned[] = L"pinned.exe";

std::string TrustOf(const std::wstring& path) {
  VxAuthenticodeFacade facade;
  std::string answers;
  if (facade.IsFileTrusted(path.c_str())) answers += 'g';
  if (facade.IsFileTrustedRestricted(path.c_str())) answers += 'r';
  if (facade.IsDropboxFileTrusted(path.c_str())) answers += 'd';
  return answers;
}

TEST(VxAuthenticodeFacade, NeedsAGoodSignatureAPinnedKeyAndAProtectedPlace) {
  const std::pair<const wchar_t*, const char*> kCases[] = {
      {kPinned, "gr"},       {L"general.exe", "g"}, {L"expired.exe", "gr"},
      {L"unpinned.exe", ""}, {L"unsigned.exe", ""}, {L"tampered.exe", ""},
      {L"appended.exe", ""}, {L"dropbox.exe", "d"}, {L"pinned_general.txt", ""},
  };
  const Tests::ProtectedFolder folder;
  for (const auto& [file, trust] : kCases) {
    SCOPED_TRACE(testing::PrintToString(file));
    EXPECT_EQ(TrustOf(folder.Hold(file)), trust);
    EXPECT_EQ(TrustOf(PkiFile(file)), "") << "in a folder of the user";
  }
}

TEST(VxAuthenticodeFacade, TrustsNoFileThatAnotherProcessMayWrite) {
  const Tests::ProtectedFolder folder;
  const std::wstring path = folder.Hold(kPinned);
  auto writer = Platform::CurrentMachine().files->Open(path, Platform::FileUse::Change);
  EXPECT_EQ(TrustOf(path), "");
  writer->reset();
  EXPECT_EQ(TrustOf(path), "gr");
}

TEST(VxAuthenticodeFacade, TrustsNoPathThatIsNotThere) {
  for (const wchar_t* path : {L"", L"C:\\no\\no.exe", L"C:\\Program Files", L"a<b", L"NUL"}) {
    EXPECT_EQ(TrustOf(path), "");
  }
  VxAuthenticodeFacade facade;
  EXPECT_FALSE(facade.IsFileTrusted(nullptr) || facade.IsFileTrustedRestricted(nullptr) ||
               facade.IsDropboxFileTrusted(nullptr));
}

TEST(VxAuthenticodeFacade, TrustsNothingWhenMemoryRunsOut) {
  const Tests::ProtectedFolder folder;
  const std::wstring path = folder.Hold(L"unsigned.exe");
  std::string trust;
  const auto ask = [&] { trust = TrustOf(path); };
  const auto check = [&] { EXPECT_EQ(trust, ""); };
  EXPECT_GT(Tests::FailEachAllocation(Tests::Shortage::Once, ask, check), 0U);
}

TEST(PublicKeysOf, ListsTheKeysInTheFormInWhichTheyArePinned) {
  const KeySet general = GeneralKeys();
  ASSERT_EQ(general.size(), 2U);
  EXPECT_THAT(PublicKeysOf(PkiFile(kPinned)), ElementsAre(general[0]));
  EXPECT_THAT(PublicKeysOf(PkiFile(L"general.exe")), ElementsAre(general[1]));
  EXPECT_THAT(PublicKeysOf(PkiFile(L"unsigned.exe")), IsEmpty());
}

TEST(Explain, TellsTheStepsOfTheDecisionAndEndsWithTheVerdict) {
  const std::wstring verified = L" issued by \"Vx Test Authority\": 0x00000000 (verified), key ";
  const std::pair<const wchar_t*, std::vector<std::wstring>> kCases[] = {
      {kPinned,
       {L"+ embedded signature of \"Vx Test Pinned\"" + verified + L"pinned",
        L"+ one signature is accepted by Windows", L"+ one signature was made with a pinned key",
        L"+ is below C:\\Program Files\\", L"+ trusted"}},
      {L"general.exe",
       {L"- embedded signature of \"Vx Test General\"" + verified + L"not pinned",
        L"+ one signature is accepted by Windows", L"- no signature was made with a pinned key",
        L"- its place was not checked", L"- not trusted"}},
      {L"tampered.exe",
       {L"- no signature that Windows can verify", L"- no signature is accepted by Windows",
        L"- no signature was made with a pinned key", L"- its place was not checked",
        L"- not trusted"}},
  };
  const Tests::ProtectedFolder folder;
  for (const auto& [file, steps] : kCases) {
    std::vector<std::wstring> lines;
    const auto trust = VerifyFile(folder.Hold(file), RestrictedKeys());
    for (const auto& step : Explain(trust, RestrictedKeys())) {
      lines.push_back((step.passed ? L"+ " : L"- ") + step.text);
    }
    EXPECT_EQ(lines, steps);
  }
}

// Wine verifies the first signature in place of the second, so only their number can be checked.
TEST(VerifyFile, LooksAtBothSignaturesOfAFile) {
  EXPECT_EQ(VerifyFile(PkiFile(L"dual.exe"), GeneralKeys()).signatures.size(), 2U);
}

TEST(VerifyFile, TrustsNothingWithoutPinnedKeys) {
  const Tests::ProtectedFolder folder;
  const FileTrust trust = VerifyFile(folder.Hold(kPinned), {});
  EXPECT_FALSE(trust.trusted);
  EXPECT_FALSE(trust.pinsConfigured);
  EXPECT_EQ(trust.signatures.size(), 1U);
}

}  // namespace

}  // namespace Vx::Tessel::Security
