#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <system_error>

#include <windows.h>

#include <wincrypt.h>

#include "acceptance/kit.h"
#include "bod/born_on_date_manager.h"
#include "companion/companion_apps.h"
#include "hosting/text.h"
#include "platform/machine.h"
#include "platform/packages.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;
using Hosting::WindowsError;

constexpr wchar_t kAuthority[] = L"Vx Test Authority";  // its common name, the same in every kit
constexpr wchar_t kDataNote[] = L"data.note";  // a file, while %ProgramData%\Vx is the kit's

using CertificateStore =
    std::unique_ptr<void, decltype([](HCERTSTORE store) { CertCloseStore(store, 0); })>;

// The machine's own trusted roots, without those from the enterprise and group policy. In Wine, a
// removal from the combined store does not persist.
CertificateStore Roots() {
  CertificateStore store(CertOpenStore(CERT_STORE_PROV_SYSTEM_REGISTRY_W, 0, 0,
                                       CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT"));
  if (store == nullptr) throw WindowsError("cannot open the trusted roots", GetLastError());
  return store;
}

// Removes the authorities of all kits, because another kit may have been killed.
void RemoveAuthority() {
  const CertificateStore roots = Roots();
  while (const CERT_CONTEXT* found = CertFindCertificateInStore(
             roots.get(), X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_W, kAuthority, nullptr)) {
    Require(CertDeleteCertificateFromStore(found) != FALSE,
            "the test authority is still trusted: remove \"Vx Test Authority\" with certlm.msc");
  }
}

// Calls `remove` until the folder is gone. A file may stay locked for a moment after its program
// has exited or while a virus scanner reads it.
template <typename Remove>
void RemoveFolder(const std::wstring& folder, Remove remove) {
  const bool gone = Eventually(std::chrono::seconds(10), [&] {
    if (Exists(folder)) remove();
    return !Exists(folder);
  });
  Require(gone, Utf8(folder) + " cannot be removed");
}

void RemoveTree(const std::wstring& folder) {
  RemoveFolder(folder, [&] {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  });
}

// Users may write here and may already have created this folder, so only the files that the rows
// leave in it are deleted.
void RemoveUserFolder() {
  const std::wstring folder = ProgramData(kKitName);
  RemoveFolder(folder, [&] {
    if ((GetFileAttributesW(folder.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
      // A module without the rule for places runs elsewhere.exe, which writes a report.
      for (const wchar_t* name : {L"\\module.txt", L"\\module.txt.part", L"\\microsoft_abi.txt",
                                  L"\\microsoft_abi.txt.part", L"\\elsewhere.exe",
                                  L"\\elsewhere.exe.out", L"\\elsewhere.exe.out.part"}) {
        DeleteFileW((folder + name).c_str());
      }
    }
    RemoveDirectoryW(folder.c_str());
  });
}

void RemoveData() {
  if (!Exists(KitFile(kDataNote))) return;
  // A removal leaves folders that are in use at the time. Only empty ones are removed here.
  for (const wchar_t* name : {L"Vx\\OrvaneService", L"Vx"}) {
    RemoveDirectoryW(ProgramFiles(name).c_str());
  }
  if (Exists(ProgramFiles(L"Vx"))) return;  // the product is there now, and the data is its own
  RemoveTree(ProgramData(L"Vx"));
  DeleteFileW(KitFile(kDataNote).c_str());
}

void NeedsNoMakersApp() {
  namespace Apps = Tessel::Server::Services::Orvane;
  for (const auto& app : {Apps::kQubo, Apps::kLumo, Apps::kAurelo}) {
    const std::wstring family = app.packageFamilyName;
    try {
      if (Platform::CurrentMachine().packages->FindForAllUsers(family).empty()) continue;
    } catch (const Platform::WindowsRuntimeError& error) {
      throw NotTried("Windows does not report whether the maker's apps are installed: " +
                     CodeOf(error));
    }
    throw NotTried("a module that starts would start or notify the maker's app " + Utf8(family));
  }
}

// Takes each step, even if an earlier one fails. Returns why steps failed.
std::string Do(std::initializer_list<void (*)()> steps) {
  std::string failures;
  for (const auto step : steps) {
    try {
      step();
    } catch (const std::exception& error) {
      failures += std::string(error.what()) + "\n";
    }
  }
  return failures;
}

}  // namespace

void TrustAuthority() {
  std::ifstream file(std::filesystem::path(KitFile(L"pki\\authority.cer")), std::ios::binary);
  const std::string certificate(std::istreambuf_iterator<char>(file), {});
  if (CertAddEncodedCertificateToStore(Roots().get(), X509_ASN_ENCODING,
                                       reinterpret_cast<const BYTE*>(certificate.data()),
                                       static_cast<DWORD>(certificate.size()),
                                       CERT_STORE_ADD_REPLACE_EXISTING, nullptr) == FALSE) {
    throw WindowsError("the test authority cannot be trusted", GetLastError());
  }
}

void UndoRow() {
  // What fails here is tried again by RemoveFootprint.
  Do({&EndTask, &EndPrograms, &RemoveService, &RemoveMsi, &RemoveData});
}

std::string RemoveFootprint() {
  const std::string left = Do({&RemoveAuthority, &EndTask, &EndPrograms, &RemoveService, &RemoveMsi,
                               &RemoveData, &RemoveUserFolder});
  // Last, because the notes in this folder record what else must be removed.
  return left.empty() ? Do({[] { RemoveTree(ProgramFiles(kKitName)); }}) : left;
}

std::optional<bool> BornOnDateInFirmware() {
  // WBEM_E_NOT_FOUND, WBEM_E_INVALID_NAMESPACE, WBEM_E_INVALID_CLASS
  constexpr std::array kNotTheMakers{0x80041002U, 0x8004100EU, 0x80041010U};
  try {
    return Tessel::Server::Services::Orvane::BornOnDateManager().born_on_date_has_been_set();
  } catch (const std::system_error& error) {
    const auto code = static_cast<unsigned>(error.code().value());
    if (std::ranges::find(kNotTheMakers, code) != kNotTheMakers.end()) return std::nullopt;
    throw std::runtime_error(Hosting::CodeText(code));
  }
}

void ClaimFreePc(Firmware firmware) {
  for (const std::wstring& folder : {ProgramData(L"Vx"), ProgramFiles(L"Vx")}) {
    if (!Exists(folder)) continue;
    throw NotTried(Utf8(folder) + " belongs to this PC, and a module that starts may change it");
  }
  if (!IsWine()) NeedsNoMakersApp();
  Hosting::WriteTextFile(KitFile(kDataNote), "");
  if (firmware == Firmware::Untouched || Exists(KitFile(kFirmwareNote))) return;
  std::string why = "its born-on date is not set";
  try {
    // Reads the date, which changes nothing. The module writes it only if it is not set.
    if (BornOnDateInFirmware().value_or(true)) return;
  } catch (const std::exception& error) {
    why = std::string("its born-on date cannot be read: ") + error.what();
  }
  throw NotTried(
      "the module could set the firmware's born-on date for good, which only --firmware allows: " +
      why);
}

}  // namespace Vx::Acceptance
