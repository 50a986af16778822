#pragma once

#include <string>

#include "companion/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

// The support assistant, detected by a registry value or a package. Returns false on failure.
class SentraSoftwareCheckBehavior final : public Base::SoftwareCheckBehavior {
 public:
  SentraSoftwareCheckBehavior();

  bool IsWin32Installed() const override;
  bool IsUwpInstalled() const override;
  bool IsInstalled() const override;
  bool IsPreloaded() const override;

 private:
  std::wstring packageFamilyName;
  std::wstring registryKey;
  std::wstring registryValue;
  std::wstring preloadFolder;
};

// The virus scanner, installed if its folder exists. It has no package.
class McAfeeSoftwareCheckBehavior final : public Base::SoftwareCheckBehavior {
 public:
  McAfeeSoftwareCheckBehavior();

  bool IsWin32Installed() const override;

  // Always throws std::logic_error.
  bool IsUwpInstalled() const override;

  bool IsInstalled() const override;
  bool IsPreloaded() const override;

 private:
  std::wstring installFolder;
  std::wstring preloadFolder;
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
