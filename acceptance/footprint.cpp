#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <system_error>

#include <windows.h>

#include <wincrypt.h>

#include "acceptance/kit.h"
#include "bod/born_on_date_manager.h"
#include "hosting/text.h"
#include "hosting/windows_error.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;
using Hosting::WindowsError;

constexpr wchar_t kAuthority[] = L"Vx Test Authority";  // its common name, the same in every kit
constexpr wchar_t kDataNote[] = L"data.note";
constexpr wchar_t kMsiNote[] = L"msi.note";
constexpr wchar_t kFirmwareNote[] = L"firmware.note";

// The console control handler runs on another thread.
std::mutex turn;
bool ended = false;

void RefuseAfterTheEnd() {
  if (ended) throw std::runtime_error("the kit was ended");
}

struct StoreCloser {
  void operator()(void* store) const noexcept { CertCloseStore(store, 0); }
};
using CertificateStore = std::unique_ptr<void, StoreCloser>;

// The machine's own trusted roots, without those from the enterprise and group policy. In Wine, a
// removal from the combined store does not persist.
CertificateStore Roots() {
  CertificateStore store(CertOpenStore(CERT_STORE_PROV_SYSTEM_REGISTRY_W, 0, 0,
                                       CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT"));
  if (store == nullptr) throw WindowsError("cannot open the trusted roots", GetLastError());
  return store;
}

const CERT_CONTEXT* Find(const CertificateStore& roots) {
  return CertFindCertificateInStore(roots.get(), X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_W,
                                    kAuthority, nullptr);
}

// Removes the authorities of all kits, because another kit may have been killed.
void RemoveAuthority() {
  {
    const CertificateStore roots = Roots();
    while (const CERT_CONTEXT* found = Find(roots)) {
      if (CertDeleteCertificateFromStore(found) == FALSE) break;
    }
  }
  Require(Find(Roots()) == nullptr,
          "the test authority is still trusted: remove \"Vx Test Authority\" with certlm.msc");
}

void RemoveService() {
  if (!Exists(KitFile(L"bin\\vxhost.exe"))) return;
  Run(Tool(L"service stop --name VxAcceptance"));
  Run(Tool(L"service remove --force --name VxAcceptance"));
}

void RemoveFolder(const std::wstring& folder) {
  std::error_code error;
  // The file of a program that has just exited may stay locked for a moment.
  const bool gone = Eventually(std::chrono::seconds(10), [&] {
    std::filesystem::remove_all(folder, error);
    return !Exists(folder);
  });
  if (!gone) throw std::runtime_error(Utf8(folder) + " cannot be removed");
}

// Users may write here and may already have created this folder, so only the files that the rows
// leave in it are deleted.
void RemoveUserFolder() {
  const DWORD attributes = GetFileAttributesW(UserFolder().c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return;
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
    for (const wchar_t* name : {L"\\module.txt", L"\\module.txt.part", L"\\microsoft_abi.txt",
                                L"\\microsoft_abi.txt.part", L"\\elsewhere.exe"}) {
      DeleteFileW((UserFolder() + name).c_str());
    }
  }
  if (RemoveDirectoryW(UserFolder().c_str()) == FALSE) {
    throw WindowsError(Utf8(UserFolder()) + " cannot be removed", GetLastError());
  }
}

// Reads the date, which changes nothing. The module writes it only if it is not set.
std::string WhyFirmwareMayChange() {
  // WBEM_E_NOT_FOUND, WBEM_E_INVALID_NAMESPACE, WBEM_E_INVALID_CLASS: not the maker's firmware
  constexpr std::array kMissing{0x80041002U, 0x8004100EU, 0x80041010U};
  try {
    if (Tessel::Server::Services::Orvane::BornOnDateManager(true).born_on_date_has_been_set()) {
      return {};
    }
    return "its born-on date is not set";
  } catch (const std::system_error& error) {
    const auto code = static_cast<unsigned>(error.code().value());
    if (std::find(kMissing.begin(), kMissing.end(), code) != kMissing.end()) return {};
    return "its born-on date cannot be read: " + Hosting::CodeText(code);
  } catch (const std::exception& error) {
    return std::string("its born-on date cannot be read: ") + error.what();
  }
}

constexpr void (*kSteps[])() = {
    &RemoveAuthority,
    &EndTask,
    &RemoveService,
    [] { Require(RemoveMsi(), "the MSI cannot be removed"); },
    &RemoveData,
    &RemoveUserFolder,
    // Last, because the notes in this folder record what else must be removed.
    [] { RemoveFolder(KitFolder()); },
};

}  // namespace

std::string RemoveFootprint(Then then) noexcept {
  if (then == Then::Nothing) EndPrograms();
  const std::lock_guard guard(turn);
  ended = then == Then::Nothing;
  std::string left;
  for (const auto step : kSteps) {
    try {
      if (step != kSteps[std::size(kSteps) - 1] || left.empty()) step();
    } catch (const std::exception& error) {
      left += std::string(error.what()) + "\n";
    }
  }
  return left;
}

void CopyKit(const std::wstring& source) {
  const std::lock_guard guard(turn);
  RefuseAfterTheEnd();
  std::filesystem::copy(source, KitFolder(), std::filesystem::copy_options::recursive);
  std::filesystem::create_directory(UserFolder());
}

void TrustAuthority() {
  const std::lock_guard guard(turn);
  RefuseAfterTheEnd();
  std::ifstream file(std::filesystem::path(KitFile(L"pki\\authority.cer")), std::ios::binary);
  const std::string certificate(std::istreambuf_iterator<char>(file), {});
  if (CertAddEncodedCertificateToStore(Roots().get(), X509_ASN_ENCODING,
                                       reinterpret_cast<const BYTE*>(certificate.data()),
                                       static_cast<DWORD>(certificate.size()),
                                       CERT_STORE_ADD_REPLACE_EXISTING, nullptr) == FALSE) {
    throw WindowsError("the test authority cannot be trusted", GetLastError());
  }
}

void NeedsFreePc(Firmware firmware) {
  for (const std::wstring& folder : {ProgramData(L"Vx"), ProgramFiles(L"Vx")}) {
    if (!Exists(folder)) continue;
    throw NotTried(Utf8(folder) + " belongs to this PC, and a module that starts may change it");
  }
  if (firmware == Firmware::Untouched || FirmwareIsAllowed()) return;
  const std::string why = WhyFirmwareMayChange();
  if (why.empty()) return;
  throw NotTried(
      "the module could set the firmware's born-on date for good, which only --firmware "
      "allows: " +
      why);
}

void AllowFirmware() {
  Hosting::WriteTextFile(KitFile(kFirmwareNote), "");
}

bool FirmwareIsAllowed() {
  return Exists(KitFile(kFirmwareNote));
}

void NoteData() {
  Hosting::WriteTextFile(KitFile(kDataNote), "");
}

void NoteMsi(const std::wstring& msi) {
  const std::wstring note = KitFile(kMsiNote);
  const std::wstring earlier = Exists(note) ? Hosting::ReadTextFile(note) : L"";
  Hosting::WriteTextFile(note, Utf8(earlier + msi + L"\n"));
}

unsigned RunMsi(const std::wstring& arguments) {
  const unsigned code =
      Run(SystemProgram(L"msiexec.exe") + L" " + arguments + L" /qn /norestart").code;
  if (code == ERROR_INSTALL_ALREADY_RUNNING) throw NotTried("another installation is running");
  return code == ERROR_SUCCESS_REBOOT_REQUIRED ? 0 : code;
}

bool RemoveMsi() {
  if (!Exists(KitFile(kMsiNote))) return true;
  std::wistringstream note(Hosting::ReadTextFile(KitFile(kMsiNote)));
  bool removed = true;
  for (std::wstring msi; std::getline(note, msi);) {
    const unsigned code = RunMsi(L"/x \"" + msi + L"\"");
    // An upgrade has removed the older product.
    removed = removed && (code == 0 || code == ERROR_UNKNOWN_PRODUCT);
  }
  if (!removed) return false;
  // Wine does not delete the folder. A folder that is not empty is kept.
  if (IsWine()) RemoveDirectoryW(ProgramFiles(L"Vx").c_str());
  DeleteFileW(KitFile(kMsiNote).c_str());
  return true;
}

void RemoveData() {
  if (!Exists(KitFile(kDataNote))) return;
  RemoveFolder(ProgramData(L"Vx"));
  DeleteFileW(KitFile(kDataNote).c_str());
}

}  // namespace Vx::Acceptance
