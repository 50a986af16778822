#pragma once

#include <string>

namespace Vx::Tests {

// Full path of a file that cmake/test_pki.cmake makes, in the folder "pki" beside the tests.
std::wstring PkiFile(const wchar_t* name);

// A folder below %PROGRAMFILES%, made for this process and removed with its content at the end,
// that no ordinary user may write to and so the path rule allows.
class ProtectedFolder {
 public:
  ProtectedFolder();
  ProtectedFolder(const ProtectedFolder&) = delete;
  ProtectedFolder& operator=(const ProtectedFolder&) = delete;
  ~ProtectedFolder();

  std::wstring operator/(const wchar_t* name) const { return path + L"\\" + name; }
  const std::wstring& Path() const { return path; }

  // Returns the full path of a copy of PkiFile(name) in this folder.
  std::wstring Hold(const wchar_t* name) const;

 private:
  std::wstring path;
};

}  // namespace Vx::Tests
