#pragma once

namespace Vx::Tessel::Server::Services::Orvane {

// This service's own document in the shared store, and its members.
inline constexpr char kServiceDocument[] = "OrvaneServiceDocument";

// The lists of subscriptions, JSON arrays as text: see request_manager.h.
inline constexpr char kPowerSubscriptions[] = "PowerEventSubscriptions";
inline constexpr char kZephraSubscriptions[] = "ZephraEventSubscriptions";
inline constexpr char kPackageSubscriptions[] = "PackageCatalogEventSubscriptions";

// The lockdown mode at the machine's first start, a 32-bit number.
inline constexpr char kFirstEnforcementMode[] = "FirstSystemEnforcementMode";

// Whether the switch software has been started. Recorded by a client, or by the service once the PC
// has left S mode.
inline constexpr char kExecutedStub[] = "ExecutedMcAfeeStub";

// The born-on date as eight digits.
inline constexpr char kBornOnDate[] = "born_on_date";

}  // namespace Vx::Tessel::Server::Services::Orvane
