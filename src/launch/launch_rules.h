#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vx::Tessel::Server::Services::Orvane {

inline constexpr std::size_t kMaxPath = 32767;

// Returns an app's path or, if there is a parameter, the quoted path, a space and the parameter.
// Empty if too long. Callers also pass the path separately, so no parameter can change the program.
std::optional<std::wstring> AppCommandLine(std::wstring_view executable,
                                           std::wstring_view parameter);

// Returns the quoted path, then a space and the arguments if they fit in Platform::kMaxCommandLine.
std::wstring SessionCommandLine(std::wstring_view executable, std::wstring_view arguments);

// Returns `wanted` if it can be a path, else the folder of `executable`, else an empty string.
std::wstring SessionWorkingDirectory(std::wstring_view wanted, std::wstring_view executable);

// Returns the folder, without a trailing backslash unless it is a drive's root. Empty if none.
std::wstring_view FolderOf(std::wstring_view path);

std::wstring_view FileNameOf(std::wstring_view path);

// Returns `block` ("NAME=value\0" entries, then "\0") with LOCALAPPDATA and APPDATA changed to a
// packaged app's folders, unless their values have another form. Adds missing terminators.
std::vector<wchar_t> EnvironmentForPackage(const std::vector<wchar_t>& block,
                                           std::wstring_view packageFolder);

// Returns whether a profile belongs to a person, not to the system, the default user or setup.
bool IsRealUserProfile(std::wstring_view profile);

}  // namespace Vx::Tessel::Server::Services::Orvane
