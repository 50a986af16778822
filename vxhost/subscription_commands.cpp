#include "vxhost/subscription_commands.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "json/json_text.h"
#include "storage/sealed_file.h"
#include "vxhost/explanation.h"
#include "vxhost/store_look.h"
#include "vxhost/text.h"

namespace Vx::Host {

namespace {

using Tessel::Server::Storage::StoreState;

// The stored subscriptions; none where there is no store.
std::vector<StoredSubscription> Stored(const HoldLimits& limits) {
  const StoreLook look = LookAtStore(limits);
  if (look.reading.state == StoreState::Missing) return {};
  return SubscriptionsIn(DocumentOf(look));
}

std::string Cell(const std::string& text, std::size_t width) {
  return text.size() < width ? text + std::string(width - text.size(), ' ') : text + " ";
}

std::string NumberCell(std::size_t number) {
  const std::string text = std::to_string(number);
  return std::string(text.size() < 4 ? 4 - text.size() : 0, ' ') + text + "  ";
}

std::string Row(const Explanation& one) {
  const StoredSubscription& subscription = one.subscription;
  const std::string event = one.event.empty() ? subscription.kind->name : Utf8(one.event);
  std::string row = NumberCell(subscription.number) +
                    Cell(subscription.hash.empty() ? "-" : Utf8(subscription.hash), 10) +
                    Cell(event, 14) + Cell(one.delay.empty() ? "-" : Utf8(one.delay) + " s", 7);
  return row + (one.action.empty() ? Utf8(subscription.text.value_or(L"")) : Utf8(one.action));
}

Json::WideDocument AsJson(const Explanation& one) {
  Json::WideDocument row(rapidjson::kObjectType);
  auto& pool = row.GetAllocator();
  const auto text = [&pool](const std::wstring& value) { return Json::WideValue(value, pool); };
  row.AddMember(L"number", static_cast<std::uint64_t>(one.subscription.number), pool);
  row.AddMember(L"hash", text(one.subscription.hash), pool);
  row.AddMember(L"kind", text(Wide(one.subscription.kind->name)), pool);
  row.AddMember(L"event", text(one.event), pool);
  row.AddMember(L"delay", text(one.delay), pool);
  row.AddMember(L"action", text(one.action), pool);
  row.AddMember(L"valid", one.fate == Fate::Runs, pool);
  Json::WideValue reasons(rapidjson::kArrayType);
  for (const std::wstring& reason : one.reasons) reasons.PushBack(text(reason), pool);
  row.AddMember(L"reasons", reasons, pool);
  row.AddMember(L"text", text(one.subscription.text.value_or(L"")), pool);
  return row;
}

int List(const HoldLimits& limits, Console& console) {
  const auto subscriptions = Stored(limits);
  if (!console.WritesJson()) {
    console.Line("  NO  HASH      EVENT         DELAY  ACTION");
    if (subscriptions.empty()) console.Line("(none is stored)");
  }
  for (const Explanation& one : Explain(subscriptions, {})) {
    if (console.WritesJson()) {
      console.JsonResult(AsJson(one));
      continue;
    }
    console.Line(Row(one));
    for (const std::wstring& reason : one.reasons) {
      console.Line(std::string(16, ' ') + "never runs: " + Utf8(reason));
    }
  }
  return kDone;
}

constexpr char kListFooter[] =
    "Each is judged on this machine as explain --all does. Reads the store without a change.\n"
    "  vxhost subscriptions\n"
    "  vxhost subscriptions list --json";
}  // namespace

void AddSubscriptionCommands(CommandLine& line) {
  const auto limits = std::make_shared<HoldLimits>();
  const auto list = [limits](Console& console) { return List(*limits, console); };
  CLI::App& group =
      line.Add("subscriptions", "list the stored subscriptions", kListFooter, list);
  CLI::App& listing = line.Add(group, "list", "list the stored subscriptions", kListFooter, list);
  for (CLI::App* command : {&group, &listing}) {
    CommandLine::AddTimeout(*command, *limits);
    line.OfferJson(*command);
    line.UseStore(*command);
  }
}

}  // namespace Vx::Host
