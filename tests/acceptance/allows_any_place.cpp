// A deliberately broken module for the acceptance kit: it starts signed programs from any place.
#include "security/authenticode_helper.h"

namespace Vx::Tessel::Security {

bool MayBeAnywhere(const VxAuthenticodeHelper* self,
                   const std::wstring& path) __asm__("__wrap_" VX_MAY_BE_ALLOWED);
PathVerdict AllowAnything(const VxAuthenticodeHelper* self,
                          const std::wstring& path) __asm__("__wrap_" VX_CHECK_PATH);

bool MayBeAnywhere(const VxAuthenticodeHelper* /*self*/, const std::wstring& /*path*/) {
  return true;
}

PathVerdict AllowAnything(const VxAuthenticodeHelper* /*self*/, const std::wstring& path) {
  return {PathOutcome::Allowed, path, path, {}, {}};
}

}  // namespace Vx::Tessel::Security
