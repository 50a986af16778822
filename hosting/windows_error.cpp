#include "hosting/windows_error.h"

#include <iterator>

#include <windows.h>

#include "hosting/text.h"

namespace Vx::Hosting {

std::string ErrorText(std::uint32_t error) {
  wchar_t text[512] = {};
  DWORD length = FormatMessageW(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
      nullptr, error, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  while (length > 0 && (text[length - 1] == L' ' || text[length - 1] == L'.')) --length;
  return length == 0 ? "it has no text" : Utf8(std::wstring_view(text, length));
}

}  // namespace Vx::Hosting
