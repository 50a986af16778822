// The contents of delivery records. scenarios/ covers most decisions and reasons.

#include "records/record.h"
#include "support/test.h"

#include "events/package_event_test.h"
#include "events/subscription_delivery.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

std::wstring Request(const std::wstring& parameters, const wchar_t* action = L"2") {
  return LR"({"powerEventType":7,"eventAction":)" + std::wstring(action) +
         LR"(,"commandParams":{)" + parameters + L"}}";
}
std::wstring Message(const std::wstring& rest = {}) {
  return Request(LR"("packageFamilyName":"f","appServiceName":"s","payload":{})" + rest);
}

class DeliveryRecordsTest : public Tests::PackageEventFixture {
 protected:
  // Returns `records` with the "#" in each replaced by the hash of `request`.
  static std::vector<std::wstring> Of(const std::wstring& request,
                                      std::vector<std::wstring> records) {
    for (std::wstring& record : records) {
      record.replace(record.find(L'#'), 1, Records::SubscriptionHash(request));
    }
    return records;
  }
};

TEST_F(DeliveryRecordsTest, SayHowEachEndedAndWhy) {
  const struct {
    const char* name;
    std::wstring request;
    std::vector<std::wstring> records;
    std::function<void()> before = [] {};
  } cases[] = {
      {"not sent",
       Message(),
       {L"power 7 not_sent:not_taken f/s of # status 5"},
       [&] {
         machine.appServices.SetReplies({{5, L""}});
       }},
      {"failed",
       Message(),
       {L"power 7 failed:exception f/s of # status -2147467259"},
       [&] {
         machine.timeline.SetListener([](const auto&) { throw std::runtime_error("boom"); });
       }},
      {"a variable",
       Request(LR"("path":"C:\\%windir%\\x")", L"1"),
       {L"power 7 refused:variable C:\\%windir%\\x of #"}},
      {"delayed",
       Message(LR"(,"delayDeliverySec":"10")"),
       {L"power 7 waiting f/s of # after 10000", L"power 7 sent f/s of # after 10000"}},
  };
  std::uint64_t last = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log.Clear();
    c.before();
    PowerEventManager::handle_event(c.request, nullptr, 7);
    machine.clock.Settle();
    machine.clock.Advance(10s);
    EXPECT_EQ(log.Records(), Of(c.request, c.records));
    EXPECT_THAT(log.Deliveries(), Each(Gt(last)));
    last = log.Deliveries().back();
    EXPECT_THAT(log.Deliveries(), Each(last)) << "a delivery keeps its number";
    machine.timeline.SetListener({});
  }
}

TEST_F(DeliveryRecordsTest, OfAnUninstallSayWhetherAUserStillHasThePackage) {
  const std::wstring request = Tests::PackageRequest(L"7");
  RegisterAppPackageEvent(request, this);
  machine.clock.Settle();
  log.Clear();
  Notify(Tests::kFamily);
  const std::wstring waiting = L"uninstall 7 waiting f/s in App_abc of # after 30000";
  EXPECT_EQ(log.Records(),
            Of(request, {waiting, L"uninstall 7 dropped:package_left f/s in App_abc of #"}));
  Remove();
  log.Clear();
  Notify(Tests::kFamily);
  EXPECT_EQ(log.Records(), Of(request, {waiting, L"uninstall 7 sent f/s in App_abc of #",
                                        L"completion 0 removed:has_run f/s in App_abc of #"}));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
