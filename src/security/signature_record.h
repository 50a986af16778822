#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/trust_provider.h"

namespace Vx::Tessel::Security {

// Returns `der` in the form in which keys are compared: two lower-case hexadecimal digits per byte,
// with a space between bytes.
std::string FormatPublicKey(std::span<const std::byte> der);

enum class SignatureKind { Catalog, Embedded };

// A signature of a file. Also a row in a table of signers, with an empty key and a zero result.
struct SignatureRecord {
  SignatureKind kind = SignatureKind::Catalog;
  std::string public_key;         // in the form of FormatPublicKey
  std::int32_t trust_result = 0;  // result of WinVerifyTrust for this signature
  Platform::SignerNames names;
};

// Known signers. Only the first table is used, by IsDropboxFileTrusted.
std::vector<SignatureRecord> DropboxSigners();
std::vector<SignatureRecord> VexmoorSigners();
std::vector<SignatureRecord> MicrosoftSigners();
std::vector<SignatureRecord> BitdefenderSigners();

}  // namespace Vx::Tessel::Security
