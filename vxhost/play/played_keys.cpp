#include "vxhost/play/played_keys.h"

#include <atomic>
#include <string>
#include <vector>

#include "security/pinned_keys.h"
#include "security/signature_record.h"
#include "simulator/simulated_trust.h"

namespace Vx::Tessel::Security {

// The sets of this build, under the names that vxhost/CMakeLists.txt gives them.
KeySet BuiltGeneralKeys() noexcept;
KeySet BuiltRestrictedKeys() noexcept;

}  // namespace Vx::Tessel::Security

namespace Vx::Host {

namespace {

using Tessel::Security::KeySet;

struct Sets {
  std::string played;
  std::vector<std::string_view> general;
  std::vector<std::string_view> restricted;
};

std::atomic<const Sets*> current{nullptr};

std::vector<std::string_view> With(KeySet built, const std::string& played) {
  std::vector<std::string_view> keys(built.begin(), built.end());
  keys.push_back(played);
  return keys;
}

}  // namespace

PlayedKeys::PlayedKeys() {
  auto* sets = new Sets;
  sets->played = Tessel::Security::FormatPublicKey(Simulator::SimulatedTrust::PinnedKey());
  sets->general = With(Tessel::Security::BuiltGeneralKeys(), sets->played);
  sets->restricted = With(Tessel::Security::BuiltRestrictedKeys(), sets->played);
  current = sets;
}

PlayedKeys::~PlayedKeys() {
  delete current.exchange(nullptr);
}

KeysOfModule::KeysOfModule(const std::wstring& module) : pins(module) {
  auto* sets = new Sets;
  sets->general.assign(pins.General().begin(), pins.General().end());
  sets->restricted.assign(pins.Restricted().begin(), pins.Restricted().end());
  current = sets;
}

KeysOfModule::~KeysOfModule() {
  delete current.exchange(nullptr);
}

}  // namespace Vx::Host

namespace Vx::Tessel::Security {

KeySet GeneralKeys() noexcept {
  const auto* sets = Host::current.load();
  return sets == nullptr ? BuiltGeneralKeys() : KeySet(sets->general);
}

KeySet RestrictedKeys() noexcept {
  const auto* sets = Host::current.load();
  return sets == nullptr ? BuiltRestrictedKeys() : KeySet(sets->restricted);
}

}  // namespace Vx::Tessel::Security
