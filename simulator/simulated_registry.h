#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "platform/registry.h"

namespace Vx::Simulator {

// The values below HKEY_LOCAL_MACHINE, initially none. Names are case-insensitive. Thread-safe.
class SimulatedRegistry final : public Platform::Registry {
 public:
  void Set(const std::wstring& key, const std::wstring& value, Platform::RegistryValue content);

  // Sets a REG_SZ value, stored with its terminator.
  void SetText(const std::wstring& key, const std::wstring& value, const std::wstring& text);
  void Remove(const std::wstring& key, const std::wstring& value);

  Platform::Result<Platform::RegistryValue> Read(const std::wstring& key,
                                                 const std::wstring& value) const override;
  bool Exists(const std::wstring& key, const std::wstring& value) const override;

 private:
  using Name = std::pair<std::wstring, std::wstring>;

  mutable std::mutex mutex;
  std::map<Name, Platform::RegistryValue> values;
};

}  // namespace Vx::Simulator
