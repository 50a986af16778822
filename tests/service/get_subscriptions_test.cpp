// Command 20, mainly when lists are unreadable or too long for the response.

#include "service/simulated_service.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "storage/store_file.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

using Element = Tessel::Server::Storage::BsonElement;
using Store = Tessel::Server::Storage::CapDataStore;
using namespace Tessel::Server::Services::Orvane;  // NOLINT(google-build-using-namespace)

constexpr std::uint32_t kRefused = 0x20000002;
constexpr wchar_t kNone[] = LR"({"result":{"power_events":[],"zephra_events":[]}})";

class GetSubscriptionsTest : public SimulatedServiceTest {
 protected:
  Reply List() { return host.Execute(20, L"{}"); }

  static void Plant(const char* key, const Element& value) {
    ASSERT_TRUE(Store().mergeMember(kServiceDocument, key, value));
  }
};

// A client that receives an empty list subscribes again and so replaces a damaged store.
TEST_F(GetSubscriptionsTest, TellsAnEmptyListFromOneThatCannotBeRead) {
  static constexpr wchar_t kListed[] = L"GetSubscriptions executed";
  static constexpr char kStored[] = R"([{"powerEventType":7}])";
  const std::wstring path = store.FilePath();
  Platform::UniqueHandle otherProgram;
  const struct {
    const char* name;
    std::function<void()> make;
    std::uint32_t code;
    const wchar_t* line;
  } cases[] = {
      {"no store", [&] { RemoveFile(path); }, 0, kListed},
      {"no store, and none can be created",
       [&] {
         RemoveFile(path);
         machine.faults.FailNamed("Files.Touch");
       },
       0, kListed},
      {"an empty store", [&] { WriteBytes(path, {}); }, 0, kListed},
      {"damaged", [&] { WriteBytes(path, Bytes(100)); }, kRefused,
       L"CapDataStore - the file is damaged"},
      {"a second name", [&] { std::filesystem::create_hard_link(path, path + L"2"); }, kRefused,
       L"Juction detected while attempting access file."},
      {"held by another program",
       [&] {
         otherProgram.reset(
             CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
       },
       kRefused, L"CapDataStore - the file could not be opened, error 0x20"},
      {"no folder", [&] { store.Block(); }, kRefused,
       L"RequestManager() - Failed to get DataStore."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    machine.faults.Clear();
    RemoveFile(path + L"2");
    otherProgram.reset();
    RemoveFile(path);
    Plant(kPowerSubscriptions, Element::Text(c.code == 0 ? "" : kStored));
    c.make();
    log.Clear();
    const Reply reply = List();
    EXPECT_EQ(reply.result, c.code);
    EXPECT_EQ(reply.response, c.code == 0 ? kNone : L"{}");
    EXPECT_THAT(log.Lines(), Contains(HasSubstr(c.line)));
  }
}

struct StoredRequest {
  std::wstring stored;
  std::wstring listed = stored;  // empty if omitted
};
using Requests = std::vector<StoredRequest>;

std::wstring ArrayOf(const Requests& requests, std::wstring StoredRequest::*text) {
  std::wstring list;
  for (const StoredRequest& request : requests) {
    if (!(request.*text).empty()) list += (list.empty() ? L"" : L",") + request.*text;
  }
  return L"[" + list + L"]";
}

std::wstring AnswerFor(const Requests& power, const Requests& zephra) {
  const auto omitted = std::ranges::count(power, L"", &StoredRequest::listed) +
                       std::ranges::count(zephra, L"", &StoredRequest::listed);
  return LR"({"result":{"power_events":)" + ArrayOf(power, &StoredRequest::listed) +
         LR"(,"zephra_events":)" + ArrayOf(zephra, &StoredRequest::listed) +
         (omitted == 0 ? L"" : LR"(,"omitted":)" + std::to_wstring(omitted)) + L"}}";
}

std::wstring OfLength(std::size_t length) {
  return LR"({"x":")" + std::wstring(length - 8, L'x') + LR"("})";
}

// The longest request that fits if all are listed, and if some are omitted.
constexpr std::size_t kLongest = 65536 - std::wstring_view(kNone).size();
constexpr std::size_t kLongestInPart =
    kLongest - std::wstring_view(L",\"omitted\":4294967295,").size();

TEST_F(GetSubscriptionsTest, ListsWhatFitsInStoredOrderAndCountsTheRest) {
  const StoredRequest small{LR"({"a":"\u0001\"ä\\ of some length"})"};
  const struct {
    const char* name;
    Requests power;
    Requests zephra;
  } cases[] = {
      {"the longest that fits", {{OfLength(kLongest)}}, {}},
      {"one character too long", {{OfLength(kLongest + 1), L""}}, {}},
      {"the longest beside another", {{OfLength(kLongestInPart)}}, {{small.stored, L""}}},
      {"too long beside another", {{OfLength(kLongestInPart + 1), L""}}, {small}},
      {"too long between others", {small, {OfLength(70000), L""}, small}, {small}},
      {"two too long", {{OfLength(70000), L""}, small, {OfLength(70000), L""}}, {small}},
      {"no room after others", {small, {OfLength(60000)}, {OfLength(9000), L""}}, {small}},
      {"a number that grows", {{L"{\"n\":[0" + Repeated(L",1e20", 3000) + L"]}", L""}, small}, {}},
      {"escapes that shrink",
       {{LR"({"s":")" + Repeated(L"\\u00e4", 60000) + L"\"}",
         LR"({"s":")" + std::wstring(60000, L'\u00e4') + L"\"}"}},
       {small}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Plant(kPowerSubscriptions, Element::Text(ArrayOf(c.power, &StoredRequest::stored)));
    Plant(kZephraSubscriptions, Element::Text(ArrayOf(c.zephra, &StoredRequest::stored)));
    const std::wstring answer = AnswerFor(c.power, c.zephra);
    EXPECT_LE(answer.size(), 65536U);
    EXPECT_TRUE(List().response == answer);
  }
}

TEST_F(GetSubscriptionsTest, ListsTheRestOnceAClientHasUnsubscribedSome) {
  const StoredRequest first{OfLength(40000)};
  const StoredRequest second{OfLength(50000)};
  Plant(kPowerSubscriptions, Element::Text(ArrayOf({first, second}, &StoredRequest::stored)));
  EXPECT_TRUE(List().response == AnswerFor({first, {second.stored, L""}}, {}));
  host.Execute(19, first.listed.c_str());
  EXPECT_TRUE(List().response == AnswerFor({second}, {}));
}

}  // namespace
}  // namespace Vx::Tests
