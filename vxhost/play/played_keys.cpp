#include "vxhost/play/played_keys.h"

#include <string>
#include <vector>

#include "security/signature_record.h"
#include "simulator/simulated_trust.h"

namespace Vx::Tessel::Security {

namespace {

std::vector<std::string_view>* WithPlayedKey(KeySet built) {
  static const auto& played =
      *new std::string(FormatPublicKey(Simulator::SimulatedTrust::PinnedKey()));
  auto* keys = new std::vector<std::string_view>(built.begin(), built.end());
  keys->push_back(played);
  return keys;
}

}  // namespace

KeySet GeneralKeys() noexcept {
  static const auto& keys = *WithPlayedKey(BuiltGeneralKeys());
  return keys;
}

KeySet RestrictedKeys() noexcept {
  static const auto& keys = *WithPlayedKey(BuiltRestrictedKeys());
  return keys;
}

}  // namespace Vx::Tessel::Security
