#pragma once

namespace Vx::Tessel::Server::Services::Orvane {

// The keys of this service's own document in the shared store, and of its members.
inline constexpr char kServiceDocument[] = "OrvaneServiceDocument";

// The subscription lists, each the text of a JSON array. See request_manager.h.
inline constexpr char kPowerSubscriptions[] = "PowerEventSubscriptions";
inline constexpr char kZephraSubscriptions[] = "ZephraEventSubscriptions";
inline constexpr char kPackageSubscriptions[] = "PackageCatalogEventSubscriptions";

// The lockdown mode at the service's first start on this machine, a 32-bit number.
inline constexpr char kFirstEnforcementMode[] = "FirstSystemEnforcementMode";

// Whether the S-mode switch software has been started. Recorded by a client, or by the service once
// the PC has left S mode.
inline constexpr char kExecutedStub[] = "ExecutedMcAfeeStub";

// The born-on date as text, in the firmware's format of six or eight digits.
inline constexpr char kBornOnDate[] = "born_on_date";

}  // namespace Vx::Tessel::Server::Services::Orvane
