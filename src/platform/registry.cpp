#include "platform/registry.h"

#include <cstring>
#include <cwchar>

namespace Vx::Platform {

std::wstring TextOf(const RegistryValue& value) {
  // Stored values may lack the terminator or end in half a character.
  std::wstring text(value.data.size() / sizeof(wchar_t), L'\0');
  if (!text.empty()) std::memcpy(text.data(), value.data.data(), text.size() * sizeof(wchar_t));
  text.resize(std::wcslen(text.c_str()));
  return text;
}

}  // namespace Vx::Platform
