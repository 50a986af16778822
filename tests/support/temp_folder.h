#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Vx::Tests {

// Delete a file, or an empty folder. A program that has just ended holds its file and its working
// directory a little longer, so these retry for up to two seconds.
void RemoveFile(const std::wstring& path);
void RemoveFolder(const std::wstring& path);

// Deletes a folder with its content, but does not follow directory links in it.
void RemoveTree(const std::wstring& folder);

// A new folder in the user's temporary folder, removed with its content at the end.
class TempFolder {
 public:
  TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder();

  const std::filesystem::path& Path() const { return path; }
  std::wstring operator/(const wchar_t* name) const { return (path / name).wstring(); }

 private:
  std::filesystem::path path;
};

class EnvironmentOverride {
 public:
  EnvironmentOverride(const wchar_t* name, const std::wstring& value);
  EnvironmentOverride(const EnvironmentOverride&) = delete;
  EnvironmentOverride& operator=(const EnvironmentOverride&) = delete;
  ~EnvironmentOverride();

 private:
  const wchar_t* name;
  std::optional<std::wstring> previous;
};

// Points %programdata% at a new folder, so that this process has its own store.
class PrivateStore {
 public:
  PrivateStore() : variable(L"ProgramData", folder.Path().wstring()) {}

  std::wstring FilePath() const {
    return (folder.Path() / L"Vx\\SharedServices\\shared_store.dat").wstring();
  }

  // Puts a file where the store's folder would be, so that no store can be opened from now on.
  void Block() const;

 private:
  TempFolder folder;
  EnvironmentOverride variable;
};

}  // namespace Vx::Tests
