#include "host/client_exemption.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string>

#include "exemption/client_information.h"
#include "exemption/exemption_white_list.h"
#include "exemption/manifest_check_criteria.h"
#include "exemption/tessel_access_manager.h"

namespace Vx::Tessel::Security {

namespace {

// Win32 error codes.
constexpr std::uint32_t kSuccess = 0;
constexpr std::uint32_t kNotEnoughMemory = 8;
constexpr std::uint32_t kGeneralFailure = 31;
constexpr std::uint32_t kInvalidParameter = 87;

// Every slot does its work through this function. No exception may reach the host, which another
// compiler built.
template <typename Question>
std::uint32_t ResultFromException(std::int32_t* exempt, Question&& question) noexcept {
  try {
    *exempt = question() ? 1 : 0;
    return kSuccess;
  } catch (const std::bad_alloc&) {
    return kNotEnoughMemory;
  } catch (...) {
    return kGeneralFailure;
  }
}

class ExportedExemption final : public Server::Services::VxClientExemption {
 public:
  void* Destroy(unsigned flags) override {
    void* address = this;
    if ((flags & 1U) != 0) {
      delete this;
    } else {
      this->~ExportedExemption();
    }
    return address;
  }

  std::uint32_t IsUwpExempt(const wchar_t* packageFamilyName, std::uint16_t majorVersion,
                            std::uint16_t minorVersion, std::int32_t* exempt) override {
    if (packageFamilyName == nullptr || exempt == nullptr) return kInvalidParameter;
    return ResultFromException(exempt, [&] {
      TesselAccessManager manager;
      manager.SetUwpChecker(std::make_shared<UwpWithNoVxManifestCheckBasedOnMajorAndMinorVersion>(
          UwpWithNoVxManifestExemptionWhiteList::GetExemption(),
          std::make_shared<Server::Uwp::UwpInformation>(std::wstring(), packageFamilyName,
                                                        majorVersion, minorVersion)));
      return manager.IsUwpExempt();
    });
  }

  std::uint32_t IsWin32Exempt(wchar_t* executableName, std::uint16_t majorVersion,
                              std::uint16_t minorVersion, std::int32_t* exempt) override {
    if (executableName == nullptr || exempt == nullptr) return kInvalidParameter;
    return ResultFromException(exempt, [&] {
      const auto client = std::make_shared<Server::Win32::Win32Information>(
          executableName, majorVersion, minorVersion);
      TesselAccessManager manager;
      manager.SetWin32Checker(
          std::make_shared<Win32WithNoVxManifestCheckBasedOnMajorAndMinorVersion>(
              Win32WithNoVxManifestExemptionWhiteList::GetExemption(), client));
      const bool answer = manager.IsWin32Exempt();
      // The check lowercases the name in `client`, and this slot must lowercase the caller's.
      std::copy(client->executableName.begin(), client->executableName.end(), executableName);
      return answer;
    });
  }

 private:
  ~ExportedExemption() = default;
};

}  // namespace

}  // namespace Vx::Tessel::Security

extern "C" Vx::Tessel::Server::Services::VxClientExemption* CreateClientExemption() {
  return new (std::nothrow) Vx::Tessel::Security::ExportedExemption;
}
