#include "storage/request_manager.h"

#include "json/json_object.h"
#include "storage/cap_data_store.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Storage::BsonElement;
using Storage::CapDataStore;

constexpr wchar_t kFirst[] = L"{\"n\":1,\"commandParams\":{\"delayDeliverySec\":\"5\"}}";
constexpr wchar_t kSecond[] = L"{\"n\":2}";

class RequestManagerTest : public testing::Test {
 protected:
  // Each service operation creates its own manager.
  static RequestManager Manager() { return {kServiceDocument, kPowerSubscriptions}; }

  static std::wstring Stored() {
    const Storage::BsonDocument document = CapDataStore().readDocument(kServiceDocument);
    const std::optional<Storage::BsonView> value = document.Find(kPowerSubscriptions);
    return value ? value->AsWideText().value() : L"nothing";
  }

  static void Plant(std::wstring_view list) {
    ASSERT_TRUE(
        CapDataStore().mergeMember(kServiceDocument, kPowerSubscriptions, BsonElement::Text(list)));
  }

  static void ExpectTheListIsRefused() {
    EXPECT_THAT([] { Manager().PersistRequest(kFirst); },
                Throws<Platform::WindowsRuntimeError>(
                    Property(&Platform::WindowsRuntimeError::code, Json::kInvalidJsonString)));
    EXPECT_THROW(Manager().RemoveRequest(kFirst), Platform::WindowsRuntimeError);
  }

  Tests::PrivateStore home;
  Tests::LogCapture log;
};

// events/scenarios/power_list.json and request_list_test.cpp cover other changes to the list.
TEST_F(RequestManagerTest, CompletesARequestInAnySpacingAndOneThatIsGone) {
  Plant(L"[{\"n\":1},{\"n\":2}]");
  for (int time = 0; time < 2; ++time) {
    EXPECT_TRUE(Manager().CompleteRequest(L"{ \"n\" : 2 }"));
    EXPECT_EQ(Stored(), L"[{\"n\":1}]");
  }
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(RequestManagerTest, ReplaysObjectsInOrderPastEverythingThatFails) {
  Plant(L"[{\"n\":1}, 5, {\"n\":2}, {\"n\":3}, {\"n\":4}, {\"n\":5}]");
  std::wstring seen;
  Manager().RegisterExistingRequests(
      [&](const std::wstring& request) {
        seen += request;
        if (request == L"{\"n\":2}") throw Platform::WindowsRuntimeError(0x20000004);
        if (request == L"{\"n\":3}") throw std::runtime_error("no thread");
        if (request == L"{\"n\":4}") throw std::bad_alloc();
      },
      [&](const std::wstring& request, const Platform::WindowsRuntimeError& error) {
        seen += L"!" + request + std::to_wstring(error.code());
      });
  EXPECT_EQ(seen,
            LR"({"n":1}{"n":2}!{"n":2}536870916{"n":3}!{"n":3}-2147467259)"
            LR"({"n":4}!{"n":4}-2147024882{"n":5})");
  const std::wstring line =
      L"error|RegisterExistingRequests - failed to register request. HRESULT: ";
  EXPECT_THAT(log.Lines(), ElementsAre(L"error|Unexpected JSON array element", line + L"536870916",
                                       line + L"-2147467259", line + L"-2147024882"));
}

TEST_F(RequestManagerTest, LeavesAStoredListThatItCannotReadAlone) {
  const std::wstring deep =
      L"[{\"commandParams\":" + std::wstring(100000, L'[') + std::wstring(100000, L']') + L"}]";
  for (const std::wstring& list : {std::wstring(L"no list"), std::wstring(L"{}"), deep}) {
    Plant(list);
    log.Clear();
    ExpectTheListIsRefused();
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_FALSE(Manager().CompleteRequest(kFirst));
    Manager().RegisterExistingRequests([](const std::wstring&) { FAIL(); }, nullptr);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            L"error|CompleteRequest - failed to persist: Exception the text is not valid JSON or "
            L"not of the wanted type, Hresult -2089484281",
            L"error|RegisterExistingRequests - failed to register request. HRESULT: -2089484281"));
    EXPECT_TRUE(Stored() == list) << "the list has changed";
  }
}

TEST_F(RequestManagerTest, LeavesAValueThatIsNotATextAlone) {
  const BsonElement broken(
      Storage::BsonView(Storage::BsonKind::String, std::as_bytes(std::span("\002\0\0\0\377", 6))));
  for (const BsonElement& value : {BsonElement::Int32(1), broken}) {
    ASSERT_TRUE(CapDataStore().mergeMember(kServiceDocument, kPowerSubscriptions, value));
    ExpectTheListIsRefused();
    const Storage::BsonDocument document = CapDataStore().readDocument(kServiceDocument);
    EXPECT_EQ(document.Find(kPowerSubscriptions), value.View());
  }
}

TEST_F(RequestManagerTest, RefusesWhatNoClientCouldNameAndWhatMakesTheListsTooLong) {
  constexpr std::size_t kMost = std::size_t{8} * 1024 * 1024;
  const auto listOf = [](std::size_t length) {
    return L"[\"" + std::wstring(length - 4, L'x') + L"\"]";
  };
  const std::wstring grows = L"{\"a\":[1e20" + Tests::Repeated(L",1e20", 50'000) + L"]}";
  for (const wchar_t* list : {L"", L"[{\"n\":3}]"}) {
    Plant(list);
    EXPECT_FALSE(Manager().PersistRequest(grows));
    EXPECT_TRUE(Stored() == list) << "too long to print";
  }
  // The limit applies to both lists together. `kSecond` adds eight characters, including the comma.
  ASSERT_TRUE(CapDataStore().mergeMember(kServiceDocument, kZephraSubscriptions,
                                         BsonElement::Text(listOf(kMost / 2))));
  Plant(listOf(kMost / 2 - 8));
  EXPECT_FALSE(Manager().PersistRequest(LR"({"n":22})"));
  EXPECT_TRUE(Manager().PersistRequest(kSecond));
  EXPECT_EQ(Manager().RemoveRequest(kSecond), RequestManager::Removal::Removed);
  const std::wstring refused = L"error|PersistRequest - failed to persist: Exception ";
  EXPECT_THAT(log.Lines(), ElementsAre(refused + L"its stored form is longer than a request may be",
                                       refused + L"its stored form is longer than a request may be",
                                       refused + L"the lists of subscriptions are full"));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Services::Orvane
