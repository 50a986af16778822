#pragma once

#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The names of one kind of subscription: of its list in the service's document of the store, and of
// the members of a request.
struct SubscriptionForm {
  const char* list;
  const wchar_t* event;
  const wchar_t* action;
  const wchar_t* parameters;
  const wchar_t* family;  // null unless the kind watches a package
};

inline constexpr SubscriptionForm kPowerForm = {kPowerSubscriptions, L"powerEventType",
                                                L"eventAction", L"commandParams", nullptr};
inline constexpr SubscriptionForm kZephraForm = {kZephraSubscriptions, L"zephraEventType",
                                                 L"zephraEventAction", L"commandParams", nullptr};
inline constexpr SubscriptionForm kPackageForm = {kPackageSubscriptions, L"catalogEvent",
                                                  L"catalogAction", L"catalogActionParams",
                                                  L"packageFamilyName"};

}  // namespace Vx::Tessel::Server::Services::Orvane
