#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "storage/bson_document.h"
#include "vxhost/subscriptions/subscription_check.h"

namespace Vx::Hosting::Tool {

struct StoredSubscription {
  std::size_t number = 0;  // position across all lists, from 1
  const SubscriptionForm* kind = nullptr;
  std::optional<std::wstring> text;  // empty if the element is not an object
  std::wstring hash;                 // as the module logs it; empty if `text` is
};

// Returns a store's subscriptions to power, platform and package events, in stored order. Throws
// std::runtime_error if a list is not a JSON array.
std::vector<StoredSubscription> SubscriptionsIn(const Tessel::Server::Storage::BsonDocument& store);

}  // namespace Vx::Hosting::Tool
