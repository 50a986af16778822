#pragma once

#include <string>

#include "launch/behaviors.h"

namespace Vx::Tessel::Server::Services::Orvane::Qubo {

// The support assistant: a registry value or a package says that it is installed. Answers false
// where Windows refuses.
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

// The virus scanner: its folder says that it is installed. It has no package.
class McAfeeSoftwareCheckBehavior final : public Base::SoftwareCheckBehavior {
 public:
  McAfeeSoftwareCheckBehavior();

  bool IsWin32Installed() const override;

  // Throws std::logic_error always.
  bool IsUwpInstalled() const override;

  bool IsInstalled() const override;
  bool IsPreloaded() const override;

 private:
  std::wstring installFolder;
  std::wstring preloadFolder;
};

}  // namespace Vx::Tessel::Server::Services::Orvane::Qubo
