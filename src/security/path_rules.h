#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Vx::Tessel::Security {

// Whether `text` begins with `prefix`, the letters A to Z being equal to a to z and every other
// character only to itself. Wider folding would match names that the file system keeps apart: a
// folder "W\u0131ndows" (dotless i), which any user may make, must not pass for "Windows".
bool BeginsWith(std::wstring_view text, std::wstring_view prefix) noexcept;

// Equal under the same folding.
bool SameIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept;

// Whether `path` starts at the root of a drive ("C:\" or "C:/"). Everything else (relative, UNC,
// "\\?\", "\\.\") means something that depends on who asks, or skips the usual reading of a path.
bool IsDrivePath(std::wstring_view path) noexcept;

// Whether `path`, already in full form, names a file by drive, folders and name alone: one colon
// (so no alternate data stream), no "/", no wildcard or control character, no empty, "." or ".."
// part and no part that ends in a blank or a dot.
bool IsPlainPath(std::wstring_view path) noexcept;

// The folder of packaged apps that holds `path`, without a backslash at its end: the text up to and
// including "WindowsApps" of the first ":\WindowsApps\". Case counts.
std::optional<std::wstring> DriveWindowsAppsFolder(std::wstring_view path);

// The same for a "WindowsApps" right below `prefix`, with which `path` begins; case does not count.
std::optional<std::wstring> WindowsAppsFolderBelow(std::wstring_view prefix,
                                                   std::wstring_view path);

}  // namespace Vx::Tessel::Security
