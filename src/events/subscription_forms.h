#pragma once

#include <cstdint>
#include <span>

#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

// An event's code, and a description of what raises it.
struct EventCode {
  std::uint32_t code;
  const wchar_t* meaning;
};

// Power broadcasts. https://learn.microsoft.com/windows/win32/power/wm-powerbroadcast
inline constexpr std::uint32_t kSuspend = 4;           // PBT_APMSUSPEND
inline constexpr std::uint32_t kResumeSuspend = 7;     // PBT_APMRESUMESUSPEND
inline constexpr std::uint32_t kResumeAutomatic = 18;  // PBT_APMRESUMEAUTOMATIC

// The codes that Windows sends.
inline constexpr EventCode kPowerCodes[] = {
    {kSuspend, L"the machine is about to sleep"},
    {kResumeSuspend, L"the machine woke and a user is present"},
    {10, L"the power source or the battery changed"},
    {kResumeAutomatic, L"the machine woke, with or without a user"},
    {0x8013, L"a power setting changed"},
};

// The service's own events.
enum class ZephraEvent : std::uint32_t { PolicyChanged = 1, UserSessionAfterBoot = 2 };

inline constexpr EventCode kPlatformCodes[] = {
    {static_cast<std::uint32_t>(ZephraEvent::PolicyChanged), L"the service policy changed"},
    {static_cast<std::uint32_t>(ZephraEvent::UserSessionAfterBoot),
     L"a real user is present after a new boot"},
};

enum class PackageCatalogEvent : std::uint32_t { Uninstalling = 5, Uninstalled = 7 };

inline constexpr EventCode kPackageCodes[] = {
    {static_cast<std::uint32_t>(PackageCatalogEvent::Uninstalling), L"the uninstall starts"},
    {static_cast<std::uint32_t>(PackageCatalogEvent::Uninstalled), L"the uninstall is complete"},
};

// Returns the description of the event with this code, or null if the code is unknown.
constexpr const wchar_t* MeaningOf(std::span<const EventCode> codes, std::uint32_t code) {
  for (const EventCode& known : codes) {
    if (known.code == code) return known.meaning;
  }
  return nullptr;
}

// One kind of subscription: its display name, its list in the service's document in the store, a
// request's member names, and the ids of the commands that change the list.
struct SubscriptionForm {
  const char* name;
  const char* list;
  const wchar_t* event;
  const wchar_t* action;
  const wchar_t* parameters;
  const wchar_t* family;  // null unless the kind watches a package
  std::uint32_t subscribe;
  std::uint32_t unsubscribe;  // 0 if no command removes it
  std::span<const EventCode> codes;
};

inline constexpr SubscriptionForm kPowerForm = {.name = "power",
                                                .list = kPowerSubscriptions,
                                                .event = L"powerEventType",
                                                .action = L"eventAction",
                                                .parameters = L"commandParams",
                                                .family = nullptr,
                                                .subscribe = 9,
                                                .unsubscribe = 19,
                                                .codes = kPowerCodes};
inline constexpr SubscriptionForm kZephraForm = {.name = "platform",
                                                 .list = kZephraSubscriptions,
                                                 .event = L"zephraEventType",
                                                 .action = L"zephraEventAction",
                                                 .parameters = L"commandParams",
                                                 .family = nullptr,
                                                 .subscribe = 14,
                                                 .unsubscribe = 15,
                                                 .codes = kPlatformCodes};
inline constexpr SubscriptionForm kPackageForm = {.name = "package",
                                                  .list = kPackageSubscriptions,
                                                  .event = L"catalogEvent",
                                                  .action = L"catalogAction",
                                                  .parameters = L"catalogActionParams",
                                                  .family = L"packageFamilyName",
                                                  .subscribe = 7,
                                                  .unsubscribe = 0,
                                                  .codes = kPackageCodes};

// In display order.
inline constexpr const SubscriptionForm* kSubscriptionForms[] = {&kPowerForm, &kZephraForm,
                                                                 &kPackageForm};

}  // namespace Vx::Tessel::Server::Services::Orvane
