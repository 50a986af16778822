#pragma once

#include <filesystem>
#include <string>

#include "support/temp_folder.h"
#include "support/test_pki.h"

namespace Vx::Tests {

// A Windows folder for this process only, in a protected place, whose lockdown policy library is a
// stand-in.
class PrivateLockdownPolicy {
 public:
  // `library` is one of the signed copies of the test authority.
  explicit PrivateLockdownPolicy(const wchar_t* library = L"pinned.dll") {
    std::filesystem::create_directory(folder / L"System32");
    std::filesystem::copy_file(PkiFile(library), Path());
  }
  PrivateLockdownPolicy(const PrivateLockdownPolicy&) = delete;
  PrivateLockdownPolicy& operator=(const PrivateLockdownPolicy&) = delete;
  ~PrivateLockdownPolicy() {
    RemoveFile(Path());
    RemoveFolder(folder / L"System32");
  }

  std::wstring Path() const { return folder / L"System32\\wldp.dll"; }

 private:
  ProtectedFolder folder;
  EnvironmentOverride windows{L"windir", folder.Path()};
};

}  // namespace Vx::Tests
