#include "vxhost/subscriptions/stored_subscriptions.h"

#include <stdexcept>
#include <utility>

#include "platform/windows_runtime_error.h"
#include "records/subscription_hash.h"
#include "storage/request_list.h"
#include "storage/service_document.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::BsonDocument;

std::vector<std::optional<std::wstring>> Texts(const BsonDocument& own,
                                               const SubscriptionForm& kind) {
  const auto value = own.Find(kind.list);
  if (!value) return {};
  const auto list = value->AsWideText();
  try {
    if (list) return Tessel::Server::Storage::RequestsOf(*list);
  } catch (const Platform::WindowsRuntimeError&) {  // NOLINT(bugprone-empty-catch): see below
  }
  throw std::runtime_error(std::string("the stored list ") + kind.list +
                           " is not a JSON array, so the module treats it as empty");
}

}  // namespace

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

}  // namespace Vx::Hosting::Tool
