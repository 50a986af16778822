#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/result.h"

namespace Vx::Platform {

struct RegistryValue {
  std::uint32_t type = 0;       // REG_ code
  std::vector<std::byte> data;  // exactly as stored, without an added terminator
};

// Reads values under HKEY_LOCAL_MACHINE (64-bit view, KEY_READ). Does not cache.
class Registry {
 public:
  virtual ~Registry() = default;

  // Fails with ERROR_FILE_NOT_FOUND if the key or the value is missing.
  virtual Result<RegistryValue> Read(const std::wstring& key, const std::wstring& value) const = 0;

  // Returns whether the value exists, whatever its type. Does not read its data.
  virtual bool Exists(const std::wstring& key, const std::wstring& value) const = 0;
};

// Returns the text of a REG_SZ value, up to the first NUL or the end of the stored data.
std::wstring TextOf(const RegistryValue& value);

}  // namespace Vx::Platform
