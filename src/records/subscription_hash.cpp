#include "records/subscription_hash.h"

#include <cstdint>

#include "json/json_object.h"
#include "platform/windows_runtime_error.h"

namespace Vx::Tessel::Server::Records {

namespace {

// FNV-1a over the UTF-16 units, low byte first.
std::uint32_t HashOf(std::wstring_view text) {
  std::uint32_t hash = 0x811C9DC5;
  for (const wchar_t c : text) {
    const auto unit = static_cast<std::uint32_t>(c);
    for (const std::uint32_t byte : {unit & 0xFF, unit >> 8 & 0xFF}) {
      hash = (hash ^ byte) * 0x01000193;
    }
  }
  return hash;
}

std::wstring CompactForm(std::wstring_view request) {
  try {
    return Json::JsonObject::Parse(request).Stringify();
  } catch (const Platform::WindowsRuntimeError&) {
    return std::wstring(request);
  }
}

}  // namespace

std::wstring SubscriptionHash(std::wstring_view request) {
  constexpr int kDigits = 8;
  const std::uint32_t hash = HashOf(CompactForm(request));
  std::wstring text;
  for (int shift = 4 * (kDigits - 1); shift >= 0; shift -= 4) {
    text.push_back(L"0123456789abcdef"[hash >> shift & 0xF]);
  }
  return text;
}

}  // namespace Vx::Tessel::Server::Records
