#include "vxhost/subscriptions/explanation.h"

#include <cmath>

#include "events/package_event_manager.h"
#include "events/subscription_delivery.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "storage/system_mutex.h"
#include "support/machine_test.h"
#include "support/test.h"
#include "vxhost/store/store.h"

namespace Vx::Hosting::Tool {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;

std::wstring Launch(const std::wstring& path, const std::wstring& more = {}) {
  return LR"({"powerEventType":18,"eventAction":1,"commandParams":{"path":")" +
         Tests::Escaped(path) + LR"(")" + more + L"}}";
}

std::wstring Message(const std::wstring& service, const std::wstring& more,
                     const std::wstring& event = L"18", const std::wstring& payload = L"{}") {
  return LR"({"powerEventType":)" + event +
         LR"(,"eventAction":2,"commandParams":{"packageFamilyName":"f","appServiceName":")" +
         service + LR"(","payload":)" + payload + more + L"}}";
}

class ExplanationTest : public Tests::StoreTest {
 protected:
  ExplanationTest() { Install(L"f"); }

  void Install(const std::wstring& family) {
    machine.packages.Install(
        {.familyName = family, .fullName = family + L"_1_x64__p", .folder = {}}, L"ann");
  }

  static void Store(const char* list, const std::vector<std::wstring>& texts) {
    std::wstring all;
    for (const std::wstring& text : texts) all += (all.empty() ? L"[" : L",") + text;
    ASSERT_TRUE(CapDataStore().mergeMember(kServiceDocument, list, BsonElement::Text(all + L"]")));
  }

  static std::vector<Explanation> ExplainNow(const Occasion& occasion) {
    return Explain(SubscriptionsIn(DocumentOf(LookAtStore())), occasion,
                   Tessel::Security::RestrictedKeys());
  }

  std::vector<std::wstring> State() const {
    std::vector<std::wstring> state = machine.timeline.Lines();
    const std::string bytes = Tests::ReadText(store.FilePath());
    state.emplace_back(bytes.begin(), bytes.end());
    state.push_back(std::to_wstring(machine.processes.Started().size()) + L" programs, " +
                    std::to_wstring(machine.appServices.Messages().size()) + L" messages, " +
                    std::to_wstring(machine.clock.Workers()) + L" workers");
    return state;
  }

  std::wstring RecordOf(const std::wstring& hash) const {
    std::wstring last;
    for (const std::wstring& record : log.Records()) {
      if (record.find(L" of " + hash) == record.npos) continue;
      last = record.substr(0, record.find(L' ', std::wstring_view(L"power 18 ").size()));
    }
    return last;
  }

  // Returns how many seconds after `since` the timeline contains `text`, or -1 if it does not.
  long HappenedAfter(Simulator::VirtualClock::Duration since, const std::wstring& text) const {
    for (const std::wstring& line : machine.timeline.Lines()) {
      if (line.find(text) == line.npos) continue;
      return std::lround(std::stod(line) - std::chrono::duration<double>(since).count());
    }
    return -1;
  }

  Tests::ProtectedFolder folder;
};

TEST_F(ExplanationTest, SaysOfTenSubscriptionsWhatThenHappensAndChangesNothing) {
  const std::wstring pinned = folder.Hold(L"pinned.exe");
  const std::wstring unsigned_ = folder.Hold(L"unsigned.exe");
  const std::wstring missing = folder / L"missing.exe";
  const struct {
    std::wstring text;
    Fate fate;
    std::wstring record;
    std::wstring trace;  // what the machine does if it runs
    int wait = 0;
  } rows[] = {
      {Launch(pinned, LR"(,"arguments":"one")"), Fate::Runs, L"power 18 ran",
       L"starts \"" + pinned},
      {Launch(unsigned_), Fate::Refused, L"power 18 refused:no_signature", unsigned_},
      {Launch(L"C:\\outside.exe"), Fate::Refused, L"power 18 refused:place", L"C:\\outside.exe"},
      {Launch(missing, LR"(,"delayDeliverySec":"3")"), Fate::Refused,
       L"power 18 refused:not_locked", missing, 3},
      {Message(L"late", LR"(,"delayDeliverySec":"10s")"), Fate::Runs, L"power 18 sent",
       L"f/late receives", 10},
      {Message(L"past", LR"(,"delayDeliverySec":"-5")"), Fate::Dropped,
       L"power 18 dropped:impossible_delay", L"f/past"},
      {Message(L"long", LR"(,"delayDeliverySec":"2147483647")"), Fate::Dropped,
       L"power 18 dropped:impossible_delay", L"f/long"},
      {Message(L"trigger", L"", L"18",
               LR"({"customTriggerGUID":"{01234567-89ab-cdef-0123-456789abcdef}"})"),
       Fate::Runs, L"power 18 raised", L"{01234567-89ab-cdef-0123-456789abcdef}"},
      {Message(L"other", L"", L"7"), Fate::OtherEvent, L"", L"f/other"},
      {LR"({"powerEventType":18,"eventAction":1})", Fate::Never, L"power 18 failed:unreadable",
       L"never"},
  };
  std::vector<std::wstring> texts;
  for (const auto& row : rows) texts.push_back(row.text);
  Store(kPowerSubscriptions, texts);

  const auto before = State();
  const auto explained = ExplainNow({&kPowerForm, 18, {}});
  EXPECT_EQ(State(), before);
  ASSERT_EQ(explained.size(), std::size(rows));

  log.Clear();
  const auto start = machine.clock.Elapsed();
  FulfillSubscriptions(kPowerEvents, 18);
  machine.clock.Advance(20s);

  for (std::size_t i = 0; i < explained.size(); ++i) {
    const Explanation& one = explained[i];
    SCOPED_TRACE(testing::PrintToString(one.subscription.text));
    EXPECT_EQ(one.fate, rows[i].fate);
    EXPECT_EQ(one.wait, rows[i].wait);
    EXPECT_EQ(one.reasons.empty(), one.fate == Fate::Runs);
    EXPECT_EQ(HappenedAfter(start, rows[i].trace), one.fate == Fate::Runs ? one.wait : -1);
    EXPECT_EQ(RecordOf(one.subscription.hash), rows[i].record);
  }
}

TEST_F(ExplanationTest, RefusesWhatTheConsoleSessionKeepsFromStarting) {
  const std::wstring pinned = folder.Hold(L"pinned.exe");
  Store(kPowerSubscriptions, {Launch(pinned)});
  machine.users.DetachConsole();
  const auto explained = ExplainNow({});
  ASSERT_EQ(explained.size(), 1U);
  EXPECT_EQ(explained[0].fate, Fate::Refused);
  EXPECT_EQ(explained[0].reasons, std::vector<std::wstring>{L"no session is at the console"});
  FulfillSubscriptions(kPowerEvents, 18);
  machine.clock.Advance(1s);
  EXPECT_EQ(RecordOf(explained[0].subscription.hash), L"power 18 not_started:no_session");
}

TEST_F(ExplanationTest, SaysWhatAnUninstallLeadsTo) {
  const std::wstring pinned = Tests::Escaped(folder.Hold(L"pinned.exe"));
  const auto package = [&](const std::wstring& family, const std::wstring& action,
                           const std::wstring& params) {
    return LR"({"catalogEvent":5,"catalogAction":)" + action + LR"(,"packageFamilyName":")" +
           family + LR"(","catalogActionParams":)" + params + L"}";
  };
  const std::wstring launch = LR"({"path":")" + pinned + LR"("})";
  Store(kPackageSubscriptions, {package(L"Here", L"1", launch), package(L"Gone", L"1", launch),
                                package(L"Here", L"2",
                                        LR"({"packageFamilyName":"f",
                                  "appServiceName":"s","payload":{"customTriggerGUID":"g"}})")});
  Install(L"Here");
  const auto before = State();
  const auto here = ExplainNow({&kPackageForm, 0, L"Here"});
  EXPECT_EQ(here[0].fate, Fate::Runs);
  EXPECT_EQ(here[1].fate, Fate::OtherEvent);
  EXPECT_EQ(here[2].action, L"send a message to f/s");
  const auto gone = ExplainNow({&kPackageForm, 0, L"Gone"});
  EXPECT_EQ(gone[1].fate, Fate::Never);
  EXPECT_THAT(gone[1].reasons.front(), testing::HasSubstr(L"the next start or logon runs it late"));
  EXPECT_EQ(State(), before);

  RegisterExistingPackageCatalogManagerRequests(nullptr);
  EXPECT_EQ(machine.processes.Started().size(), 1U);  // late, for the package that is gone
  machine.clock.Settle();
  machine.packages.Uninstall(L"Here", L"ann");
  machine.clock.Advance(2s);
  EXPECT_EQ(machine.processes.Started().size(), 2U);
  EXPECT_EQ(Sent(), (std::vector<std::wstring>{LR"(f/s {"customTriggerGUID":"g"})"}));
  PackageCatalogEventManager::clear_events();
}

TEST_F(ExplanationTest, NamesAHeldStoreAndGivesUp) {
  std::promise<void> held;
  std::promise<void> done;
  std::thread holder([&] {
    Tessel::Server::Storage::SystemMutex mutex(CapDataStore::kMutexName);
    mutex.lock();
    held.set_value();
    done.get_future().wait();
    mutex.unlock();
  });
  held.get_future().wait();
  testing::internal::CaptureStderr();
  EXPECT_THROW(StoreHold(StoreUse::Read, {.notice = 10ms, .timeout = 30ms}), std::runtime_error);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("waiting for the store, which is held by "));
  done.set_value();
  holder.join();
  const StoreHold now(StoreUse::Read, {.notice = 10ms, .timeout = 10s});
}

}  // namespace

}  // namespace Vx::Hosting::Tool
