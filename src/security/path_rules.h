#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Vx::Tessel::Security {

// Whether `text` begins with `prefix`. The letters A to Z equal a to z, and every other character
// equals only itself. Wider folding would match names that the file system distinguishes: a folder
// "W\u0131ndows" (dotless i), which any user may create, must not pass for "Windows".
bool BeginsWith(std::wstring_view text, std::wstring_view prefix) noexcept;

// Equal under the same folding.
bool SameIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept;

// Whether `path` starts at the root of a drive ("C:\" or "C:/"). The meaning of any other path
// (relative, UNC, "\\?\", "\\.\") depends on the process, or it is not parsed as usual.
bool IsDrivePath(std::wstring_view path) noexcept;

// Whether `path`, already in full form, names a file by drive, folders and name alone. It has one
// colon (so no alternate data stream), no "/", no wildcard or control character, no empty, "." or
// ".." part and no part that ends in a blank or a dot.
bool IsPlainPath(std::wstring_view path) noexcept;

// The folder of packaged apps that contains `path`, without a backslash at its end: the text up to
// and including "WindowsApps" of the first ":\WindowsApps\". Case-sensitive.
std::optional<std::wstring> DriveWindowsAppsFolder(std::wstring_view path);

// The same for a "WindowsApps" directly below `prefix`, with which `path` begins. Case-insensitive.
std::optional<std::wstring> WindowsAppsFolderBelow(std::wstring_view prefix,
                                                   std::wstring_view path);

}  // namespace Vx::Tessel::Security
