#include "security/authenticode_facade.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/files.h"
#include "platform/machine.h"
#include "security/file_trust.h"
#include "security/pinned_key_text.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "support/test_pki.h"

// On real signatures, files and folders. Keys are those of the test authority.

namespace Vx::Tessel::Security {

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

enum class PlacedIn { ProgramFiles, UserFolder };

// A copy of a test program in a place of its kind.
class Placed {
 public:
  Placed(const wchar_t* name, PlacedIn place)
      : path(place == PlacedIn::ProgramFiles ? protectedFolder.Hold(name) : userFolder / name) {
    if (place == PlacedIn::ProgramFiles) return;
    std::filesystem::copy_file(Tests::PkiFile(name), path);
  }
  const std::wstring& Path() const { return path; }

 private:
  Tests::ProtectedFolder protectedFolder;
  Tests::TempFolder userFolder;
  std::wstring path;
};

TEST(VxAuthenticodeFacade, NeedsAGoodSignatureAPinnedKeyAndAProtectedPlace) {
  static constexpr struct {
    const wchar_t* file;
    PlacedIn place;
    bool general;
    bool restricted;
    bool dropbox;
  } kCases[] = {
      {L"pinned.exe", PlacedIn::ProgramFiles, true, true, false},
      {L"general.exe", PlacedIn::ProgramFiles, true, false, false},
      {L"expired.exe", PlacedIn::ProgramFiles, true, true, false},
      {L"unpinned.exe", PlacedIn::ProgramFiles, false, false, false},
      {L"unsigned.exe", PlacedIn::ProgramFiles, false, false, false},
      {L"tampered.exe", PlacedIn::ProgramFiles, false, false, false},
      {L"appended.exe", PlacedIn::ProgramFiles, false, false, false},
      {L"dropbox.exe", PlacedIn::ProgramFiles, false, false, true},
      {L"pinned.exe", PlacedIn::UserFolder, false, false, false},
      {L"dropbox.exe", PlacedIn::UserFolder, false, false, false},
      {L"pinned_general.txt", PlacedIn::ProgramFiles, false, false, false},
  };
  VxAuthenticodeFacade facade;
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.file));
    const Placed file(c.file, c.place);
    EXPECT_EQ(facade.IsFileTrusted(file.Path().c_str()), c.general);
    EXPECT_EQ(facade.IsFileTrustedRestricted(file.Path().c_str()), c.restricted);
    EXPECT_EQ(facade.IsDropboxFileTrusted(file.Path().c_str()), c.dropbox);
  }
}

TEST(VxAuthenticodeFacade, TrustsNoPathThatIsNotThere) {
  VxAuthenticodeFacade facade;
  for (const wchar_t* path : {static_cast<const wchar_t*>(nullptr), L"", L"C:\\no\\no.exe",
                              L"C:\\Program Files", L"a<b", L"NUL"}) {
    EXPECT_FALSE(facade.IsFileTrusted(path));
    EXPECT_FALSE(facade.IsFileTrustedRestricted(path));
    EXPECT_FALSE(facade.IsDropboxFileTrusted(path));
  }
}

TEST(VxAuthenticodeFacade, LogsEachStepOfARefusalForItsPlace) {
  const Placed file(L"pinned.exe", PlacedIn::UserFolder);
  const std::wstring& path = file.Path();
  const std::wstring failed =
      L"error|Vx::Tessel::Security::VxAuthenticodeHelper::IsPathAllowed - BeginsWith() failed [" +
      path + L"] [";
  const Tests::LogCapture log;
  EXPECT_FALSE(VxAuthenticodeFacade().IsFileTrustedRestricted(path.c_str()));
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(
          L"info|Security - GetSecurityCatalogInfo - File = " + path,
          L"error|Security - GetSecurityCatalogInfo - Failed during "
          L"CryptCATAdminEnumCatalogFromHash. Error Code = 2",
          L"info|Subject = C=DE, S=Test State, L=Testtown, O=Vx Test Makers, OU=Vx Test Unit, "
          L"CN=Vx Test Pinned",
          L"info|Security - IsFileTrusted - trusted by windows = yes, trusted by Zephra = yes",
          failed + L"C:\\windows\\]", failed + L"C:\\Program Files (x86)\\]",
          failed + L"C:\\Program Files\\]",
          L"error|Vx::Tessel::Security::VxAuthenticodeHelper::IsPathAllowed - Didn't find "
          L"substring [:\\WindowsApps\\] in [" +
              path + L"]"));
}

TEST(FileLock, KeepsTheFileFromBeingReplacedUntilItGoes) {
  const Tests::TempFolder folder;
  const std::wstring path = folder / L"held.exe";
  Platform::Files& files = *Platform::CurrentMachine().files;
  ASSERT_EQ(files.Touch(path), 0U);
  const std::wstring line =
      L"info|Vx::Tessel::Security::VxAuthenticodeHelper::AquireFileReadOnlyLock(" + path + L") : ";
  const Tests::LogCapture log;
  {
    const auto lock = AquireFileReadOnlyLock(path);
    ASSERT_NE(lock, nullptr);
    EXPECT_NE(files.Remove(path), 0U);
    EXPECT_NE(files.Overwrite(path, {}), 0U);
  }
  EXPECT_EQ(files.Remove(path), 0U);
  EXPECT_EQ(AquireFileReadOnlyLock(path), nullptr);
  EXPECT_THAT(log.Lines(), ElementsAre(line + L"succeeded", line + L"FAILED"));
}

TEST(PublicKeysOf, ListsTheKeysInTheFormInWhichTheyArePinned) {
  std::ifstream file(std::filesystem::path(Tests::PkiFile(L"pinned_general.txt")));
  const auto general = ParsePinnedKeys(std::string(std::istreambuf_iterator<char>(file), {})).keys;
  ASSERT_EQ(general.size(), 2U);
  EXPECT_THAT(PublicKeysOf(Tests::PkiFile(L"pinned.exe")), ElementsAre(general[0]));
  EXPECT_THAT(PublicKeysOf(Tests::PkiFile(L"general.exe")), ElementsAre(general[1]));
  EXPECT_THAT(PublicKeysOf(Tests::PkiFile(L"unsigned.exe")), IsEmpty());
  EXPECT_THAT(std::vector<std::string>(GeneralKeys().begin(), GeneralKeys().end()),
              ElementsAreArray(general));
}

std::wstring Verified(const wchar_t* signer) {
  return L"embedded signature of \"" + std::wstring(signer) +
         L"\" issued by \"Vx Test Authority\": 0x00000000 (verified), key ";
}

TEST(Explain, TellsTheStepsOfTheDecisionAndEndsWithTheVerdict) {
  const struct {
    const wchar_t* file;
    std::vector<std::wstring> steps;
  } kCases[] = {
      {L"pinned.exe",
       {L"+ " + Verified(L"Vx Test Pinned") + L"pinned", L"+ one signature is accepted by Windows",
        L"+ one signature was made with a pinned key", L"+ lies below C:\\Program Files\\",
        L"+ trusted"}},
      {L"general.exe",
       {L"- " + Verified(L"Vx Test General") + L"not pinned",
        L"+ one signature is accepted by Windows", L"- no signature was made with a pinned key",
        L"- its place was not looked at", L"- not trusted"}},
      {L"tampered.exe",
       {L"- no signature that Windows can verify", L"- no signature is accepted by Windows",
        L"- no signature was made with a pinned key", L"- its place was not looked at",
        L"- not trusted"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.file));
    const Placed file(c.file, PlacedIn::ProgramFiles);
    std::vector<std::wstring> lines;
    for (const auto& step : Explain(JudgeFile(file.Path(), RestrictedKeys()), RestrictedKeys())) {
      lines.push_back((step.passed ? L"+ " : L"- ") + step.text);
    }
    EXPECT_EQ(lines, c.steps);
  }
}

// The emulator shows the first signature in the place of the second one, so that only the number
// can be looked at here.
TEST(JudgeFile, LooksAtBothSignaturesOfAFile) {
  const FileTrust trust = JudgeFile(Tests::PkiFile(L"dual.exe"), GeneralKeys());
  EXPECT_EQ(trust.embeddedSignatures.size(), 2U);
}

TEST(JudgeFile, TrustsNothingWithoutPinnedKeys) {
  const Placed file(L"pinned.exe", PlacedIn::ProgramFiles);
  const FileTrust trust = JudgeFile(file.Path(), {});
  EXPECT_FALSE(trust.trusted);
  EXPECT_FALSE(trust.pinsConfigured);
  EXPECT_EQ(trust.embeddedSignatures.size(), 1U);
}

}  // namespace

}  // namespace Vx::Tessel::Security
