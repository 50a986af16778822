#include "security/signature_record.h"

#include <string_view>

namespace Vx::Tessel::Security {

namespace {

constexpr wchar_t kIssuer[] = L"DigiCert SHA2 Assured ID Code Signing CA";

constexpr std::string_view kDigits = "0123456789abcdef";

std::vector<SignatureRecord> Row(Platform::SignerNames names) {
  return {{.kind = {}, .public_key = {}, .trust_result = 0, .names = std::move(names)}};
}

}  // namespace

std::string FormatPublicKey(std::span<const std::byte> der) {
  std::string text;
  text.reserve(der.size() * 3);
  for (const std::byte byte : der) {
    if (!text.empty()) text += ' ';
    text += kDigits[std::to_integer<std::size_t>(byte) >> 4];
    text += kDigits[std::to_integer<std::size_t>(byte) & 15];
  }
  return text;
}

// Each row: common name, organisational unit, locality, organisation, state, country and the
// issuer's common name.

std::vector<SignatureRecord> DropboxSigners() {
  return Row(
      {L"Dropbox, Inc", L"", L"San Francisco", L"Dropbox, Inc", L"California", L"US", kIssuer});
}

std::vector<SignatureRecord> VexmoorSigners() {
  return Row({L"Vexmoor Inc.", L"Vexmoor Security", L"", L"Vexmoor Inc.", L"", L"US", kIssuer});
}

std::vector<SignatureRecord> MicrosoftSigners() {
  return Row({L"Microsoft Corporation", L"", L"Redmond", L"Microsoft Corporation", L"Washington",
              L"", L""});
}

std::vector<SignatureRecord> BitdefenderSigners() {
  return Row({L"Bitdefender SRL", L"", L"Bucharest", L"Bitdefender SRL", L"", L"", kIssuer});
}

}  // namespace Vx::Tessel::Security
