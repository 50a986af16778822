#include "simulator/simulated_registry.h"

#include <algorithm>
#include <cstring>
#include <cwctype>

namespace Vx::Simulator {

namespace {

constexpr std::uint32_t kText = 1;                // REG_SZ
constexpr Platform::ErrorCode kFileNotFound = 2;  // ERROR_FILE_NOT_FOUND

std::wstring Lower(std::wstring text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](wchar_t unit) { return static_cast<wchar_t>(std::towlower(unit)); });
  return text;
}

}  // namespace

void SimulatedRegistry::Set(const std::wstring& key, const std::wstring& value,
                            Platform::RegistryValue content) {
  const std::lock_guard guard(mutex);
  values[{Lower(key), Lower(value)}] = std::move(content);
}

void SimulatedRegistry::SetText(const std::wstring& key, const std::wstring& value,
                                const std::wstring& text) {
  Platform::RegistryValue content{.type = kText, .data = {}};
  content.data.resize((text.size() + 1) * sizeof(wchar_t));
  std::memcpy(content.data.data(), text.c_str(), content.data.size());
  Set(key, value, std::move(content));
}

void SimulatedRegistry::Remove(const std::wstring& key, const std::wstring& value) {
  const std::lock_guard guard(mutex);
  values.erase({Lower(key), Lower(value)});
}

Platform::Result<Platform::RegistryValue> SimulatedRegistry::Read(const std::wstring& key,
                                                                  const std::wstring& value) const {
  const std::lock_guard guard(mutex);
  const auto found = values.find({Lower(key), Lower(value)});
  if (found == values.end()) return Platform::Failure(kFileNotFound);
  return found->second;
}

bool SimulatedRegistry::Exists(const std::wstring& key, const std::wstring& value) const {
  const std::lock_guard guard(mutex);
  return values.count({Lower(key), Lower(value)}) != 0;
}

}  // namespace Vx::Simulator
