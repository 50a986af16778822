#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "storage/bson_document.h"
#include "vxhost/subscriptions/subscription_check.h"

namespace Vx::Host {

// One element of the stored lists.
struct StoredSubscription {
  std::size_t number = 0;  // in the order of all lists, from 1
  const SubscriptionForm* kind = nullptr;
  std::optional<std::wstring> text;  // empty for an element that is not an object
  std::wstring hash;                 // as the module logs it; empty with the text
};

// Returns the subscriptions in a store: of power, platform and package events, in stored order.
// Throws std::runtime_error when a list is not a JSON array.
std::vector<StoredSubscription> SubscriptionsIn(const Tessel::Server::Storage::BsonDocument& store);

}  // namespace Vx::Host
