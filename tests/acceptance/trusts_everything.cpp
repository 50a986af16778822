// A module that is broken on purpose, for the acceptance kit: it finds every file trusted.
#include "security/file_trust.h"

namespace Vx::Tessel::Security {

FileTrust TrustAnything(const std::wstring& path, KeySet keys) __asm__("__wrap_" VX_VERIFY_FILE);

FileTrust TrustAnything(const std::wstring& /*path*/, KeySet /*keys*/) {
  FileTrust trust;
  trust.trusted = true;
  return trust;
}

}  // namespace Vx::Tessel::Security
