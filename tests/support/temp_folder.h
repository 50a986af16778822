#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace Vx::Tests {

// Delete a file, or a folder with its contents but without following directory links in it. Retry
// for up to two seconds, because a program that has just exited may still lock its file and folder.
void RemoveFile(const std::wstring& path);
void RemoveTree(const std::wstring& folder);

// Returns a file's content byte for byte, or nothing if it cannot be opened.
std::string ReadText(const std::filesystem::path& path);
void WriteText(const std::filesystem::path& path, std::string_view content);

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
  PrivateStore();

  std::wstring FilePath() const {
    return (folder.Path() / L"Vx\\SharedServices\\shared_store.dat").wstring();
  }

  // Puts a file where the store's folder would be, so that no store can be opened from then on.
  void Block() const;

 private:
  TempFolder folder;
  EnvironmentOverride variable;
};

// Returns the full path of a file made by cmake/test_pki.cmake.
std::wstring PkiFile(const wchar_t* name);

// A folder under %PROGRAMFILES% that ordinary users cannot write to, so that the path rule allows
// it. Created for this process and removed with its contents on destruction.
class ProtectedFolder {
 public:
  ProtectedFolder();
  ProtectedFolder(const ProtectedFolder&) = delete;
  ProtectedFolder& operator=(const ProtectedFolder&) = delete;
  ~ProtectedFolder();

  std::wstring operator/(const wchar_t* name) const { return path + L"\\" + name; }
  const std::wstring& Path() const { return path; }

  // Returns the full path of a new copy of PkiFile(name) in this folder.
  std::wstring Hold(const wchar_t* name) const;

 private:
  std::wstring path;
};

// A link at `path` to the directory `target`, removed on destruction. The emulator reports success
// for a symbolic link without creating one, so the host system creates the link there.
class DirectoryLink {
 public:
  DirectoryLink(std::wstring path, const std::wstring& target);
  DirectoryLink(const DirectoryLink&) = delete;
  DirectoryLink& operator=(const DirectoryLink&) = delete;
  ~DirectoryLink();

 private:
  std::wstring path;
  bool outside = false;  // created by the host system
};

}  // namespace Vx::Tests
