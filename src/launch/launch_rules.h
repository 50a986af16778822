#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vx::Tessel::Server::Services::Orvane {

// The longest command line, in characters, that a terminator still fits behind.
inline constexpr std::size_t kMaxCommandLine = 32767;
inline constexpr std::size_t kMaxPath = 32767;

// What an app is started with: its path alone, or the quoted path, a blank and the parameter. Empty
// when that is too long. The program itself is always named apart from its command line, so nothing
// in a parameter can start another one.
std::optional<std::wstring> AppCommandLine(std::wstring_view executable,
                                           std::wstring_view parameter);

// The quoted path, then a blank and the arguments if all of it fits; at most kMaxCommandLine.
std::wstring SessionCommandLine(std::wstring_view executable, std::wstring_view arguments);

// `wanted` if it can be a path, else the folder of `executable`, else nothing.
std::wstring SessionWorkingDirectory(std::wstring_view wanted, std::wstring_view executable);

// The folder part of a path, without a trailing backslash except for a drive's root; empty when
// there is none.
std::wstring_view FolderOf(std::wstring_view path);

// The part of a path after its last backslash.
std::wstring_view FileNameOf(std::wstring_view path);

// An environment block ("NAME=value\0" entries, then "\0") in which the local and roaming data
// folders are those of a packaged app. Entries without the expected part are kept as they are, and
// a block that lacks terminators is given them.
std::vector<wchar_t> EnvironmentForPackage(const std::vector<wchar_t>& block,
                                           std::wstring_view packageFolder);

// Whether a profile folder belongs to a person: not the system's, the default or the set-up user's.
bool IsRealUserProfile(std::wstring_view profile);

}  // namespace Vx::Tessel::Server::Services::Orvane
