#include "vxhost/subscriptions/own_signature.h"

#include <stdexcept>
#include <vector>

#include "hosting/text.h"
#include "security/authenticode_helper.h"

namespace Vx::Hosting::Tool {

using namespace Tessel::Security;

namespace {

constexpr char kPinned[] =
    " is signed with a pinned key, so a client could have the service start it as SYSTEM with any "
    "arguments; use a copy without a signature or sign it with a key that is not pinned";

}  // namespace

void RefusePinnedSignature(const std::wstring& program, KeySet general, KeySet restricted) {
  if (general.empty() && restricted.empty()) return;
  const VxAuthenticodeHelper helper;
  const auto lock = helper.AquireFileReadOnlyLock(program);
  if (lock == nullptr) {
    throw std::runtime_error("cannot read " + Utf8(program) + " to check its signature");
  }
  std::vector<SignatureRecord> records = helper.CollectSignatures(program, SignatureKind::Catalog);
  const auto embedded = helper.CollectSignatures(program, SignatureKind::Embedded);
  records.insert(records.end(), embedded.begin(), embedded.end());
  if (VxAuthenticodeHelper::IsTrustedByWindows(records) &&
      (VxAuthenticodeHelper::IsKeyPinned(records, general) ||
       VxAuthenticodeHelper::IsKeyPinned(records, restricted))) {
    throw std::runtime_error(Utf8(program) + kPinned);
  }
}

}  // namespace Vx::Hosting::Tool
