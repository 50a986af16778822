// A deliberately broken module for the acceptance kit: it trusts every file.
#include "security/file_trust.h"

namespace Vx::Tessel::Security {

FileTrust TrustAnything(const std::wstring& path, KeySet keys) __asm__("__wrap_" VX_VERIFY_FILE);

FileTrust TrustAnything(const std::wstring& /*path*/, KeySet /*keys*/) {
  FileTrust trust;
  trust.trusted = true;
  return trust;
}

}  // namespace Vx::Tessel::Security
