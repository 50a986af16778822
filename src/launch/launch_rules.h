#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vx::Tessel::Server::Services::Orvane {

// The longest command line that Windows takes, in characters without the terminator: see
// https://learn.microsoft.com/windows/win32/api/processthreadsapi/nf-processthreadsapi-createprocessasuserw
inline constexpr std::size_t kMaxCommandLine = 32766;
inline constexpr std::size_t kMaxPath = 32767;

// Returns the command line of an app: its path alone, or the quoted path, a blank and the
// parameter. Empty when that is too long. Callers also name the program apart from its command
// line, so that nothing in a parameter can start another one.
std::optional<std::wstring> AppCommandLine(std::wstring_view executable,
                                           std::wstring_view parameter);

// Returns the quoted path, then a blank and the arguments if they fit. At most kMaxCommandLine.
std::wstring SessionCommandLine(std::wstring_view executable, std::wstring_view arguments);

// Returns `wanted` if it can be a path, or else the folder of `executable`, or else an empty text.
std::wstring SessionWorkingDirectory(std::wstring_view wanted, std::wstring_view executable);

// Returns the folder part of a path, without a trailing backslash except for a drive's root. Empty
// if the path has no backslash.
std::wstring_view FolderOf(std::wstring_view path);

// Returns the part of a path after its last backslash.
std::wstring_view FileNameOf(std::wstring_view path);

// Returns an environment block ("NAME=value\0" entries, then "\0") in which the local and roaming
// data folders are those of a packaged app. Keeps entries without the expected part as they are,
// and adds terminators that the block lacks.
std::vector<wchar_t> EnvironmentForPackage(const std::vector<wchar_t>& block,
                                           std::wstring_view packageFolder);

// Returns whether a profile folder is a person's: not the system's, the default or the set-up
// user's.
bool IsRealUserProfile(std::wstring_view profile);

}  // namespace Vx::Tessel::Server::Services::Orvane
