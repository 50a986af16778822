#include "vxhost/play/private_store.h"

#include <string>
#include <system_error>

#include <windows.h>

namespace Vx::Hosting::Tool {

PrivateStore::PrivateStore()
    : folder(std::filesystem::temp_directory_path() /
             (L"vxhost-" + std::to_wstring(GetCurrentProcessId()))) {
  std::filesystem::create_directories(folder);
  SetEnvironmentVariableW(L"ProgramData", folder.wstring().c_str());
}

PrivateStore::~PrivateStore() {
  std::error_code ignored;  // a folder that contains other files stays
  for (const wchar_t* name :
       {L"Vx\\SharedServices\\shared_store.dat", L"Vx\\SharedServices", L"Vx"}) {
    std::filesystem::remove(folder / name, ignored);
  }
  std::filesystem::remove(folder, ignored);
}

}  // namespace Vx::Hosting::Tool
