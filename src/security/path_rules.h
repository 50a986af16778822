#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Vx::Tessel::Security {

// Returns whether `text` begins with `prefix`, ignoring the case of A to Z only. Full case folding
// would match names that the file system distinguishes: a folder "W\u0131ndows" (dotless i), which
// any user may create, must not pass for "Windows".
bool BeginsWith(std::wstring_view text, std::wstring_view prefix) noexcept;

// Returns whether the two are equal, ignoring case in the same way.
bool SameIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept;

// Returns whether `path` starts at the root of a drive ("C:\" or "C:/"). Any other path (relative,
// UNC, "\\?\", "\\.\") depends on the process or is not parsed as usual.
bool IsDrivePath(std::wstring_view path) noexcept;

// Returns whether `path`, already in full form, names a file by drive, folders and name alone. It
// has one colon (so no alternate data stream), no "/", wildcard or control character, no empty, "."
// or ".." part, and no part that ends in a space or a dot.
bool IsPlainPath(std::wstring_view path) noexcept;

// Returns the folder of packaged apps that contains `path`, without a trailing backslash: `path` up
// to and including "WindowsApps" in the first ":\WindowsApps\". Case-sensitive.
std::optional<std::wstring> DriveWindowsAppsFolder(std::wstring_view path);

// Like DriveWindowsAppsFolder, but for a "WindowsApps" directly below `prefix`. Returns nothing
// unless `path` begins with `prefix`. Case-insensitive.
std::optional<std::wstring> WindowsAppsFolderBelow(std::wstring_view prefix,
                                                   std::wstring_view path);

}  // namespace Vx::Tessel::Security
