#include "servicehost/guarded_folder.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>
#include <shlobj.h>

#include "hosting/text.h"
#include "platform/machine.h"
#include "platform/result.h"
#include "platform/system_services.h"
#include "platform/unique_handle.h"
#include "platform/windows/file_handle.h"
#include "servicehost/accounts.h"

namespace Vx::Hosting::ServiceHost {

namespace {

using Platform::CurrentMachine;

constexpr std::array kSystem = {
    L"S-1-5-18",
    L"S-1-5-32-544",
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464",  // the Windows installer
    L"S-1-3-0",  // CREATOR OWNER: applies only to child objects, whose own owner is checked
    L"S-1-3-4",  // OWNER RIGHTS: the owner is checked in any case
};

constexpr std::uint32_t kReplacing =
    FILE_DELETE_CHILD | DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
constexpr std::uint32_t kReplacingChildren =
    FILE_DELETE_CHILD | WRITE_DAC | WRITE_OWNER | GENERIC_ALL;
constexpr std::uint32_t kWriting = FILE_WRITE_DATA | FILE_APPEND_DATA | kReplacing;

constexpr std::uint32_t kChangingTheList = WRITE_DAC | WRITE_OWNER | GENERIC_ALL;

// These set the owner too: otherwise, the account that created a folder could change its list.
constexpr wchar_t kReadable[] = L"O:BAD:P(A;OICI;GA;;;SY)(A;OICI;GA;;;BA)(A;OICI;GRGX;;;BU)";
constexpr wchar_t kPrivate[] = L"O:BAD:P(A;OICI;GA;;;SY)(A;OICI;GA;;;BA)";

struct DataFolder {
  const wchar_t* path;
  const wchar_t* access;
};
// Parents come first.
constexpr DataFolder kFolders[] = {
    {L"\\Vx", kReadable},
    {L"\\Vx\\SharedServices", kPrivate},
    {L"\\Vx\\Logs", kPrivate},
};

// Explains which other accounts have any of `rights` to `path`. Returns "" if none does.
std::string WhyOpen(const std::wstring& path, const Platform::Result<Platform::AccessList>& access,
                    std::uint32_t rights, Writers accepted) {
  if (!access) {
    return Utf8(path) + " cannot be examined (error " + std::to_string(access.Error()) + ")";
  }
  std::string writers;
  for (const std::wstring& sid : OtherWriters(*access, rights, accepted)) {
    writers += (writers.empty() ? Utf8(path) + " can be written by " : ", ") + Utf8(sid);
  }
  return writers;
}

std::string WhyOpen(const std::wstring& path, std::uint32_t rights, Writers accepted) {
  return WhyOpen(path, CurrentMachine().files->FolderAccess(path), rights, accepted);
}

Platform::UniqueLocalMemory<void> Descriptor(const wchar_t* access) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(access, SDDL_REVISION_1, &raw,
                                                           nullptr) == FALSE) {
    throw std::runtime_error("Windows rejects the access list of a folder");
  }
  return Platform::UniqueLocalMemory<void>(raw);
}

[[noreturn]] void ThrowError(const std::wstring& path, const char* what, DWORD error) {
  throw WindowsError(Utf8(path) + what, error, "; run as administrator");
}

// Returns true if it created the folder. Does not change an existing one.
bool Make(const std::wstring& path, const wchar_t* access) {
  const auto descriptor = Descriptor(access);
  SECURITY_ATTRIBUTES security{sizeof security, descriptor.get(), FALSE};
  if (CreateDirectoryW(path.c_str(), &security) != FALSE) return true;
  const DWORD error = GetLastError();
  if (error != ERROR_ALREADY_EXISTS) ThrowError(path, " cannot be created", error);
  return false;
}

// Opens the folder itself, not a link's target, and prevents others from renaming or deleting it,
// because a link in its place could redirect later operations. Without FILE_LIST_DIRECTORY, Windows
// would not enforce the sharing mode.
Platform::UniqueHandle Hold(const std::wstring& path, DWORD rights) {
  Platform::UniqueHandle folder = Platform::OpenDiskFile(
      path, READ_CONTROL | FILE_READ_ATTRIBUTES | FILE_LIST_DIRECTORY | rights,
      FILE_SHARE_READ | FILE_SHARE_WRITE,
      FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT);
  if (folder == nullptr) ThrowError(path, " cannot be opened", GetLastError());
  FILE_ATTRIBUTE_TAG_INFO found{};
  if (GetFileInformationByHandleEx(folder.get(), FileAttributeTagInfo, &found, sizeof found) ==
      FALSE) {
    ThrowError(path, " cannot be examined", GetLastError());
  }
  // The emulator follows links anyway. There, only attributes queried by name reveal a link.
  const auto named = CurrentMachine().files->Attributes(path);
  if (((found.FileAttributes | (named ? *named : 0)) & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    throw std::runtime_error(Utf8(path) + " is a link; find out who created it");
  }
  if ((found.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    throw std::runtime_error(Utf8(path) + " is a file; move it away");
  }
  return folder;
}

// Sets the folder's owner and access list. Explicit entries on its contents are kept, and inherited
// ones are updated.
void Close(Platform::RawHandle folder, const std::wstring& path, const wchar_t* access) {
  const auto descriptor = Descriptor(access);
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL list = nullptr;
  PSID owner = nullptr;
  GetSecurityDescriptorDacl(descriptor.get(), &present, &list, &defaulted);
  GetSecurityDescriptorOwner(descriptor.get(), &owner, &defaulted);
  const DWORD error = SetSecurityInfo(
      folder, SE_FILE_OBJECT,
      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
      owner, nullptr, list, nullptr);
  if (error != ERROR_SUCCESS) ThrowError(path, " cannot be repaired", error);
}

// Replaces a folder whose access list another account could change, because that account may still
// have a handle with that access. Returns the old folder's new path.
std::wstring Replace(Platform::UniqueHandle& folder, const std::wstring& path,
                     const wchar_t* access) {
  const auto name = Platform::NewUuid();
  std::wstring aside = path + L".replaced-" + (name ? *name : std::wstring());
  const Platform::ErrorCode error = Platform::RenameTo(folder.get(), aside);
  if (error != 0)
    ThrowError(path, " may be held open by another account and cannot be renamed", error);
  folder.reset();
  if (!Make(path, access))
    throw std::runtime_error(Utf8(path) + " has been created by another program");
  folder = Hold(path, 0);
  return aside;
}

}  // namespace

std::vector<std::wstring> OtherWriters(const Platform::AccessList& access, std::uint32_t rights,
                                       Writers accepted) {
  const std::wstring own =
      accepted == Writers::Account ? CallerOf(GetCurrentProcessId()).account : std::wstring();
  std::vector<std::wstring> writers;
  const auto judge = [&](const std::wstring& sid) {
    if (std::ranges::any_of(kSystem, [&](const wchar_t* known) { return sid == known; })) return;
    if (!own.empty() && sid == own) return;
    if (std::ranges::find(writers, sid) == writers.end()) writers.push_back(sid);
  };
  judge(access.owner);
  for (const auto& entry : access.entries) {
    if (entry.allowed && (entry.mask & rights) != 0) judge(entry.sid);
  }
  return writers;
}

std::string WhyWritable(const std::wstring& folder, Writers accepted) {
  return WhyOpen(folder, kWriting, accepted);
}

std::string WhyUnguarded(const std::wstring& file, Writers accepted) {
  std::wstring path = file;
  std::uint32_t rights = kWriting;
  for (std::size_t end = path.size(); end != std::wstring::npos && end > 2;
       end = path.find_last_of(L'\\')) {
    path.resize(end);
    if (std::string why = WhyOpen(path, rights, accepted); !why.empty()) return why;
    if (path.size() < file.size() && rights == kWriting) rights = kReplacing;
  }
  // Users may create entries in the drive's root, because they cannot replace its folders that way.
  return WhyOpen(file.substr(0, 2) + L"\\", kReplacingChildren, accepted);
}

std::wstring ProgramDataFolder() {
  wchar_t path[MAX_PATH];
  if (SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) {
    throw std::runtime_error("Windows does not name the folder of program data");
  }
  return path;
}

std::wstring LogsFolder(const std::wstring& programData) {
  return programData + kFolders[2].path;
}

std::vector<std::string> PrepareFolders(const std::wstring& programData, Writers accepted,
                                        Existing existing) {
  const bool repairs = existing == Existing::Repair;
  std::vector<std::string> repaired;
  std::vector<Platform::UniqueHandle> held;
  for (const DataFolder& folder : kFolders) {
    const std::wstring path = programData + folder.path;
    Make(path, folder.access);
    auto opened = Hold(path, repairs ? WRITE_DAC | WRITE_OWNER | DELETE : 0);
    const auto access = Platform::AccessOf(opened.get());
    std::string why = WhyOpen(path, access, kWriting, accepted);
    if (!why.empty()) {
      if (!repairs) {
        throw std::runtime_error(why + "; look at its contents, then install with --repair");
      }
      if (!access || !OtherWriters(*access, kChangingTheList, accepted).empty()) {
        why += "; its former contents are in " + Utf8(Replace(opened, path, folder.access));
      } else {
        Close(opened.get(), path, folder.access);
      }
      const auto now = Platform::AccessOf(opened.get());
      if (const std::string still = WhyOpen(path, now, kWriting, accepted); !still.empty()) {
        throw std::runtime_error(still + ", even after the repair");
      }
      repaired.push_back(why);
    }
    held.push_back(std::move(opened));
  }
  return repaired;
}

}  // namespace Vx::Hosting::ServiceHost
