#include <chrono>
#include <exception>
#include <string>

#include "acceptance/kit.h"
#include "hosting/text.h"

namespace Vx::Acceptance {

namespace {

constexpr wchar_t kFolder[] = L"Vx";  // shared with the maker's other products
constexpr wchar_t kWithService[] = L" ADDLOCAL=ALL";

bool ServiceIsInstalled() {
  return Run(Tool(L"service status")).output.find("not installed") == std::string::npos;
}

std::wstring Installed(const wchar_t* file) {
  return ProgramFiles(L"Vx\\OrvaneService\\") + file;
}

// The product under test. The destructor removes it with its data.
class Product {
 public:
  enum class Starts { Nothing, Service };
  explicit Product(Starts starts) : wasThere(Exists(ProgramFiles(kFolder))) {
    if (Exists(Installed(L"")) || ServiceIsInstalled()) {
      throw NotTried("the product or its service is installed on this PC");
    }
    if (starts == Starts::Nothing) return;
    NeedsFreePc();
    NoteData();
  }
  Product(const Product&) = delete;
  Product& operator=(const Product&) = delete;
  ~Product() {
    try {
      RemoveMsi();
      RemoveData();
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): tried again at the end
    }
  }

  static void Install(const wchar_t* name, const std::wstring& properties = {}) {
    const std::wstring msi = KitFile(name);
    NoteMsi(msi);
    // Under Wine, no folder belongs to the administrators, as it must outside development.
    const unsigned code = RunMsi(L"/i \"" + msi + L"\"" + properties +
                                 (IsWine() ? L" SERVICEOPTIONS=--development" : L""));
    Require(code == 0, "msiexec exits with " + std::to_string(code));
    Require(Exists(Installed(L"OrvaneService.dll")), "it installs no module");
  }

  static std::string Exec(const wchar_t* command, const char* text) {
    return Expect(L"\"" + Installed(L"vxhost.exe") + L"\" exec --service " + command, text);
  }

  void Remove() const {
    Require(RemoveMsi(), "its removal fails");
    Require(Eventually(std::chrono::seconds(20),
                       [this] {
                         return !Exists(wasThere ? Installed(L"") : ProgramFiles(kFolder)) &&
                                !ServiceIsInstalled();
                       }),
            "its removal leaves a folder or the service");
  }

 private:
  bool wasThere;
};

void NeedsFile(const wchar_t* msi) {
  if (!Exists(KitFile(msi))) throw NotTried("the kit has no " + Hosting::Utf8(msi));
}

constexpr wchar_t kMsi[] = L"msi\\OrvaneService.msi";
constexpr wchar_t kPrevious[] = L"msi\\previous.msi";

}  // namespace

std::string MsiInstalls() {
  NeedsFile(kMsi);
  const Product product(Product::Starts::Nothing);
  Product::Install(kMsi);
  Require(!ServiceIsInstalled(), "it installs a service that was not asked for");
  Require(Exists(Installed(L"docs\\operations.md")), "it installs no manual");
  product.Remove();
  return "installed and removed";
}

std::string MsiInstallsService() {
  NeedsFile(kMsi);
  const Product product(Product::Starts::Service);
  Product::Install(kMsi, kWithService);
  std::string version = Product::Exec(L"22", "getVersion");
  product.Remove();
  return version;
}

std::string MsiUpgrades() {
  NeedsFile(kMsi);
  NeedsFile(kPrevious);
  const Product product(Product::Starts::Service);
  Product::Install(kPrevious, kWithService);
  const std::string older = Product::Exec(L"22", "getVersion");
  Product::Exec(
      LR"(9 "{\"powerEventType\":7,\"eventAction\":1,\"commandParams\":{\"path\":\"C:\\kept.exe\"}}")",
      "(stored)");
  Product::Install(kMsi, kWithService);
  std::string newer = Product::Exec(L"22", "getVersion");
  Require(newer != older, "after the upgrade the service still answers " + older);
  Product::Exec(L"20", "kept.exe");
  product.Remove();
  return newer;
}

}  // namespace Vx::Acceptance
