// The record of each decision about a delivery. That of a program that runs is in scenarios/.

#include "records/record.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "events/package_event_test.h"
#include "events/power_events.h"
#include "platform/kernel_objects.h"
#include "records/subscription_hash.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using namespace std::chrono_literals;
using testing::Each;
using testing::Gt;

std::wstring Request(const std::wstring& parameters, const wchar_t* action = L"2") {
  return LR"({"powerEventType":7,"eventAction":)" + std::wstring(action) +
         LR"(,"commandParams":{)" + parameters + L"}}";
}
std::wstring Message(const std::wstring& rest = {}, const std::wstring& payload = {}) {
  return Request(LR"("packageFamilyName":"f","appServiceName":"s","payload":{)" + payload + L"}" +
                 rest);
}
std::wstring Launch(const std::wstring& path) {
  return Request(LR"("path":")" + path + L"\"", L"1");
}

class DeliveryRecordsTest : public Tests::PackageEventFixture {
 protected:
  // `records` with the hash of `request` in place of "#".
  static std::vector<std::wstring> Of(const std::wstring& request,
                                      std::vector<std::wstring> records) {
    for (std::wstring& record : records) {
      record.replace(record.find(L'#'), 1, Records::SubscriptionHash(request));
    }
    return records;
  }
};

TEST_F(DeliveryRecordsTest, SayHowEachEndedAndWhy) {
  auto& objects = *Platform::CurrentMachine().kernelObjects;
  const auto standby = objects.MakeManualEvent(L"{CE7DC567-F47B-4A07-8489-C9DEB372B88F}");
  const auto stop = Platform::Share(*objects.MakeManualEvent({}));
  const auto fail = [](const auto&) { throw std::runtime_error("boom"); };
  const std::wstring delayed = Message(LR"(,"delayDeliverySec":"10")");
  const std::wstring trigger = Message({}, LR"("customTriggerGUID":"{g}")");
  const struct {
    const char* name;
    std::wstring request;
    std::vector<std::wstring> records;
    std::function<void()> before = [] {};
    std::function<void()> during = [] {};
  } cases[] = {
      {"sent", Message(), {L"power 7 sent f/s of #"}},
      {"not sent",
       Message(),
       {L"power 7 not_sent:not_taken f/s of # status 5"},
       [&] {
         machine.appServices.SetReplies({{5, L""}});
       }},
      {"raised", trigger, {L"power 7 raised f/s of #"}},
      {"not raised",
       trigger,
       {L"power 7 not_raised:windows f/s of # status 9"},
       [&] { machine.system.SetTriggerStatus(9); }},
      {"failed",
       Message(),
       {L"power 7 failed:exception f/s of # status -2147467259"},
       [&] { machine.timeline.SetListener(fail); }},
      {"without a thread",
       Message(),
       {L"power 7 failed:no_thread f/s of # status 11"},
       [&] { machine.faults.FailNamed("Threads.Start"); }},
      {"unreadable", L"{}", {L"power 7 failed:unreadable of # status -2089484279"}},
      {"no such delay",
       Message(LR"(,"delayDeliverySec":"-3")"),
       {L"power 7 dropped:impossible_delay f/s of #"}},
      {"not a path", Launch(L"x.exe"), {L"power 7 refused:not_on_drive x.exe of #"}},
      {"a variable",
       Launch(L"C:\\\\%windir%\\\\x"),
       {L"power 7 refused:variable C:\\%windir%\\x of #"}},
      {"elsewhere", Launch(L"C:\\\\x.exe"), {L"power 7 refused:place C:\\x.exe of #"}},
      {"missing",
       Launch(L"C:\\\\Windows\\\\no.exe"),
       {L"power 7 refused:not_locked C:\\Windows\\no.exe of #"}},
      {"delayed",
       delayed,
       {L"power 7 waiting f/s of # after 10000", L"power 7 sent f/s of # after 10000"}},
      {"Modern Standby begins",
       delayed,
       {L"power 7 waiting f/s of # after 10000", L"power 7 dropped:standby f/s of #"},
       [] {},
       [&] { objects.Signal(standby->get()); }},
      {"the service ends",
       delayed,
       {L"power 7 waiting f/s of # after 10000", L"power 7 dropped:service_ended f/s of #"},
       [&] { objects.Signal(stop.get()); }},
  };
  std::uint64_t last = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log.Clear();
    c.before();
    try {
      PowerEventManager::handle_event(c.request, nullptr, 7, stop);
    } catch (const std::system_error&) {
      EXPECT_STREQ(c.name, "without a thread");
    }
    machine.clock.Settle();
    c.during();
    machine.clock.Advance(10s);
    EXPECT_EQ(log.Records(), Of(c.request, c.records));
    EXPECT_THAT(log.Deliveries(), Each(Gt(last)));
    last = log.Deliveries().back();
    EXPECT_THAT(log.Deliveries(), Each(last)) << "one number for one delivery";
    machine.timeline.SetListener({});
    machine.system.SetTriggerStatus(0);
    machine.faults.Clear();
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

// A program may run late, a message may not.
TEST_F(DeliveryRecordsTest, OfALateUninstallSayThatAMessageIsNotSent) {
  std::wstring launch = Tests::PackageRequest(L"5");
  launch.replace(launch.find(L"Action\":2"), 9, L"Action\":1");
  launch.replace(launch.find(L"\"payload\":{}"), 12, LR"("path":"x.exe")");
  const std::wstring message = Tests::PackageRequest(L"5");
  for (const auto& [request, decision] : {std::pair(message, L"dropped:not_late f/s"),
                                          std::pair(launch, L"refused:not_on_drive x.exe")}) {
    PackageCatalogEventManager::execute_command(request);
    EXPECT_EQ(log.Records(),
              Of(request, {std::wstring(L"uninstall 5 ") + decision + L" in App_abc of #"}));
    log.Clear();
  }
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
