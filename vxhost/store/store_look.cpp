#include "vxhost/store/store_look.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "hosting/text.h"
#include "platform/file_handle.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/windows_runtime_error.h"
#include "records/record.h"
#include "storage/cap_data_store.h"
#include "storage/request_list.h"
#include "storage/service_document.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::BsonDocument;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::SealedFile;
using Tessel::Server::Storage::StoreState;

std::string Hexadecimal(std::uint32_t error) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", error);
  return text;
}

bool IsForeign(const std::wstring& path) {
  const auto file = Platform::CurrentMachine().files->Open(path, Platform::FileUse::Inspect);
  if (!file) return false;
  const auto ours = (*file)->HasTrustedOwner();
  return ours && !*ours;
}

bool HasSecondName(const std::wstring& path) {
  const auto file = Platform::CurrentMachine().files->Open(path, Platform::FileUse::Inspect);
  if (!file) return false;
  const auto facts = (*file)->Facts();
  return facts && facts->names > 1;
}

std::vector<std::optional<std::wstring>> Texts(const BsonDocument& own,
                                               const SubscriptionForm& kind) {
  const auto value = own.Find(kind.list);
  if (!value) return {};
  try {
    if (const auto list = value->AsWideText()) return Tessel::Server::Storage::RequestsOf(*list);
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch): see below
  }
  throw std::runtime_error(std::string("the stored list ") + kind.list +
                           " is not a JSON array, so the module treats it as empty");
}

}  // namespace

StoreLook LookAtFile(const std::wstring& path) {
  StoreLook look{path, SealedFile(path).ReadOnce(), {}};
  if (auto siblings = Platform::CurrentMachine().files->Siblings(path)) look.siblings = *siblings;
  return look;
}

StoreLook LookAtStore(const HoldLimits& limits) {
  const StoreHold hold(StoreUse::Read, limits);
  return LookAtFile(CapDataStore::PathOfFile());
}

std::vector<StoredSubscription> SubscriptionsIn(const BsonDocument& store) {
  std::vector<StoredSubscription> all;
  const auto found = store.Find(kServiceDocument);
  if (!found) return all;
  const auto own = found->AsDocument();
  if (!own) {
    throw std::runtime_error(std::string(kServiceDocument) +
                             " is not a document, so the module cannot read its lists");
  }
  for (const SubscriptionForm* kind : kSubscriptionForms) {
    for (auto& text : Texts(*own, *kind)) {
      std::wstring hash = text ? Tessel::Server::Records::SubscriptionHash(*text) : std::wstring();
      all.push_back({all.size() + 1, kind, std::move(text), std::move(hash)});
    }
  }
  return all;
}

std::vector<StoredSubscription> SubscriptionsOf(const StoreLook& look) {
  if (look.reading.state == StoreState::Missing) return {};
  return SubscriptionsIn(DocumentOf(look));
}

StoreVerdict Diagnose(const StoreLook& look, Owner owner) {
  const SealedFile::Reading& reading = look.reading;
  if (reading.state == StoreState::Missing) return {"missing", "there is no file"};
  if (reading.state == StoreState::Linked) {
    return {"linked", HasSecondName(look.path) ? "linked: the file has a second name"
                                               : "linked: the path is a link"};
  }
  if (reading.state == StoreState::TooLarge) return {"too large", "too large: beyond 64 MiB"};
  if (reading.state == StoreState::NotOpened) {
    return {"not opened", "it could not be opened, perhaps only temporarily: error " +
                              Hexadecimal(reading.error)};
  }
  const std::string size = std::to_string(reading.content.size()) + " bytes";
  const bool zero =
      std::ranges::all_of(reading.content, [](std::byte b) { return b == std::byte{}; });
  if (!reading.content.empty() && zero) {
    return {"zeroed", "zeroed: " + size + ", and all of them are zero"};
  }
  if (reading.cutShort) {
    return {"cut short", "cut short: " + size + ", where the header alone has 72"};
  }
  // A readable store may have any header, because a store that is replaced keeps its header.
  if (!reading.document && !reading.id.empty() && !IsUuid(reading.id)) {
    return {"foreign",
            "not a store: its first 72 bytes are not an identity, so another program "
            "wrote it"};
  }
  if (reading.state == StoreState::OtherMachine) {
    return {"other machine", "sealed on another machine: Windows has no key for it, error " +
                                 Hexadecimal(reading.error)};
  }
  if (reading.state == StoreState::Damaged) {
    return {"damaged", reading.error == 0
                           ? "damaged: Windows decrypts it, but it does not contain a document"
                           : "damaged: Windows cannot decrypt its content, error " +
                                 Hexadecimal(reading.error)};
  }
  if (owner == Owner::Trusted && IsForeign(look.path)) {
    return {"foreign", "foreign: its owner is not SYSTEM, the administrators or this account"};
  }
  try {
    if (reading.document) SubscriptionsIn(*reading.document);
  } catch (const std::runtime_error& error) {
    return {"list broken", error.what()};
  }
  return {"sound", reading.document ? "sound" : "sound, and empty"};
}

BsonDocument DocumentOf(const StoreLook& look) {
  if (look.reading.state != StoreState::Sound) {
    throw std::runtime_error("the store cannot be read: " + Diagnose(look).text +
                             "; see \"The store looks broken\" in docs/operations.md and " +
                             "vxhost store verify");
  }
  return look.reading.document.value_or(BsonDocument());
}

}  // namespace Vx::Hosting::Tool
