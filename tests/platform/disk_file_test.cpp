#include "support/test.h"

#include <aclapi.h>

#include "platform/files.h"
#include "platform/trust_provider.h"
#include "platform/windows/file_handle.h"
#include "support/silent_pipe.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" decltype(&CreateFileW) __imp_CreateFileW;
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" decltype(&GetSecurityInfo) __imp_GetSecurityInfo;

namespace Vx::Platform {
namespace {

std::vector<DWORD> pipeFlags;  // one element per open
const decltype(&CreateFileW) realCreateFile = __imp_CreateFileW;

// Records the flags, because the emulator grants a pipe's server the same rights with any flags.
HANDLE WINAPI WatchedCreateFile(const wchar_t* name, DWORD access, DWORD share,
                                SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                                HANDLE pattern) {
  if (std::wcsstr(name, L"\\pipe\\") != nullptr) pipeFlags.push_back(flags);
  return realCreateFile(name, access, share, security, disposition, flags, pattern);
}

// Reading or writing a pipe could block forever, and its server must not impersonate the caller.
TEST(DiskFileTest, APipeIsNeitherReadNorWrittenNorGivenAnIdentity) {
  Files& files = *CurrentMachine().files;
  const TrustProvider& trust = *CurrentMachine().trustProvider;
  const Tests::TempFolder folder;
  constexpr ErrorCode kNoFile = ERROR_BAD_FILE_TYPE;
  const std::pair<const char*, std::function<ErrorCode(const std::wstring&)>> kCases[] = {
      {"read", [&](const auto& path) { return files.Read(path, 1).Error(); }},
      {"overwrite",
       [&](const auto& path) { return files.Overwrite(path, std::vector<std::byte>(100'000)); }},
      {"lock", [&](const auto& path) { return files.OpenReadLocked(path).Error(); }},
      {"final path", [&](const auto& path) { return files.FinalPath(path).Error(); }},
      {"access list", [&](const auto& path) { return files.FolderAccess(path).Error(); }},
      {"touch", [&](const auto& path) { return files.Touch(path); }},
      {"open", [&](const auto& path) { return files.Open(path, FileUse::Read).Error(); }},
      {"create with its access list",
       [&](const auto& path) {
         return files.Create((folder.Path() / "new").wstring(), path).Error();
       }},
      {"digest", [&](const auto& path) { return files.Sha256(path).Error(); }},
      {"catalog",
       [&](const auto& path) {
         CatalogFailure failure;
         EXPECT_FALSE(trust.FindCatalog(path, failure));
         return failure.error;
       }},
      {"signature",
       [&](const auto& path) { return HRESULT_CODE(trust.VerifyEmbedded(path, 0).result); }},
      {"catalog member",
       [&](const auto& path) {
         const CatalogHit hit{.catalogPath = {}, .memberTag = {}, .memberPath = path, .hash = {}};
         return HRESULT_CODE(trust.VerifyInCatalog(hit, 0).result);
       }},
  };
  const auto kIdentifiedOnly = testing::Truly([](DWORD flags) {
    constexpr DWORD kSecurityFlags = SECURITY_SQOS_PRESENT | SECURITY_VALID_SQOS_FLAGS;
    return (flags & kSecurityFlags) == (SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION);
  });
  const Tests::ImportOverride watch(__imp_CreateFileW, &WatchedCreateFile);
  for (const auto& [name, open] : kCases) {
    SCOPED_TRACE(name);
    const Tests::SilentPipe pipe;
    EXPECT_EQ(open(pipe.Path()), kNoFile) << "only an open pipe is known to be one";
    EXPECT_THAT(std::exchange(pipeFlags, {}), testing::ElementsAre(kIdentifiedOnly));
  }
}

BYTE entryType = 0;

DWORD WINAPI OneEntry(HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID* owner, PSID*, PACL* list,
                      PACL*, PSECURITY_DESCRIPTOR*) {
  static struct {
    ACL list{ACL_REVISION_DS, 0, sizeof(ACL) + 20, 1, 0};
    ACE_HEADER header{0, 0, 20};
    ACCESS_MASK mask = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
    SID everyone{SID_REVISION, 1, SECURITY_WORLD_SID_AUTHORITY, {SECURITY_WORLD_RID}};
  } access;
  access.header.AceType = entryType;
  *owner = &access.everyone;
  *list = &access.list;
  return ERROR_SUCCESS;
}

// The access list is faked, because the emulator's file system cannot store entries of other types.
TEST(AccessOfTest, AnEntryOfAnotherTypeAllowsAccessToAnUnknownAccountUnlessItDenies) {
  constexpr DWORD kMask = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
  static constexpr struct {
    BYTE type;
    bool allowed;
    DWORD mask;
  } kCases[] = {
      {ACCESS_ALLOWED_ACE_TYPE, true, kMask},
      {ACCESS_ALLOWED_OBJECT_ACE_TYPE, true, kMask},
      {ACCESS_ALLOWED_CALLBACK_ACE_TYPE, true, kMask},
      {ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE, true, kMask},
      {ACCESS_DENIED_ACE_TYPE, false, ~0U},
      {ACCESS_DENIED_CALLBACK_ACE_TYPE, false, ~0U},
      {ACCESS_ALLOWED_COMPOUND_ACE_TYPE, true, ~0U},
      {0x7F, true, ~0U},  // from a later version of Windows
  };
  const Tests::ImportOverride list(__imp_GetSecurityInfo, &OneEntry);
  for (const auto& c : kCases) {
    SCOPED_TRACE(+c.type);
    entryType = c.type;
    const AccessEntry entry = AccessOf(nullptr)->entries.at(0);
    EXPECT_EQ(entry.allowed, c.allowed);
    EXPECT_EQ(entry.mask, c.mask);
    EXPECT_EQ(entry.sid == L"S-1-1-0", c.type == ACCESS_ALLOWED_ACE_TYPE);
  }
}

}  // namespace
}  // namespace Vx::Platform
