#include "security/signature_record.h"

#include <string_view>

namespace Vx::Tessel::Security {

namespace {

constexpr wchar_t kIssuer[] = L"DigiCert SHA2 Assured ID Code Signing CA";

constexpr std::string_view kDigits = "0123456789abcdef";

SignatureRecord Row(Platform::SignerNames names) {
  return {.public_key = {}, .trust_result = 0, .names = std::move(names)};
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

std::vector<SignatureRecord> DropboxSigners() {
  return {Row({.commonName = L"Dropbox, Inc",
               .organisationalUnit = {},
               .locality = L"San Francisco",
               .organisation = L"Dropbox, Inc",
               .state = L"California",
               .country = L"US",
               .issuerCommonName = kIssuer})};
}

std::vector<SignatureRecord> VexmoorSigners() {
  return {Row({.commonName = L"Vexmoor Inc.",
               .organisationalUnit = L"Vexmoor Security",
               .locality = {},
               .organisation = L"Vexmoor Inc.",
               .state = {},
               .country = L"US",
               .issuerCommonName = kIssuer})};
}

std::vector<SignatureRecord> MicrosoftSigners() {
  return {Row({.commonName = L"Microsoft Corporation",
               .organisationalUnit = {},
               .locality = L"Redmond",
               .organisation = L"Microsoft Corporation",
               .state = L"Washington",
               .country = {},
               .issuerCommonName = {}})};
}

std::vector<SignatureRecord> BitdefenderSigners() {
  return {Row({.commonName = L"Bitdefender SRL",
               .organisationalUnit = {},
               .locality = L"Bucharest",
               .organisation = L"Bitdefender SRL",
               .state = {},
               .country = {},
               .issuerCommonName = kIssuer})};
}

}  // namespace Vx::Tessel::Security
