#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Vx::Tests {

// Delete a file, or a folder that is empty. A program that has just ended holds its file and its
// working directory for a moment longer, so a refusal is tried again for up to two seconds.
void RemoveFile(const std::wstring& path);
void RemoveFolder(const std::wstring& path);

// Deletes a folder with its content, but nothing behind a directory link inside it.
void RemoveTree(const std::wstring& folder);

// A fresh folder under the user's temporary folder, removed with its content at the end.
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

// Sets an environment variable of this process for the life of the object.
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

// Points %programdata% at a fresh folder, so that the store of this process is its own.
class PrivateStore {
 public:
  PrivateStore() : variable(L"ProgramData", folder.Path().wstring()) {}

  std::wstring FilePath() const {
    return (folder.Path() / L"Vx\\SharedServices\\shared_store.dat").wstring();
  }

  // Puts a file where the store's folder would be: from now on no store can be opened.
  void Block() const;

 private:
  TempFolder folder;
  EnvironmentOverride variable;
};

}  // namespace Vx::Tests
