#include "storage/request_list.h"

#include "json/json_object.h"
#include "support/test.h"

namespace Vx::Tessel::Server::Storage {

namespace {

std::wstring Nested(std::size_t levels) {
  return L"{\"commandParams\":" + std::wstring(levels, L'[') + std::wstring(levels, L']') + L"}";
}

TEST(ListWith, KeepsTheFirstRequestUnchangedAndAppendsOthers) {
  EXPECT_EQ(ListWith(L"", L" { \"a\" : 1.0 } "), L"[ { \"a\" : 1.0 } ]");
  EXPECT_EQ(ListWith(L"[ { \"a\" : 1.0 } ]", L"{ \"b\" : 1e3 }"), L"[{\"a\":1.0},{\"b\":1000.0}]");
  EXPECT_EQ(ListWith(L"[]", L"{ }"), L"[{}]");
  EXPECT_EQ(ListWith(L"[5]", L"{}"), L"[5,{}]");
  EXPECT_EQ(ListWith(L"[5,null]", L"{}"), L"[5,null,{}]");
}

TEST(ListWith, RefusesARequestThatDiffersInItsDelayOnly) {
  const std::wstring list =
      L"[{\"x\":1},{\"commandParams\":{\"delayDeliverySec\":\"5\",\"path\":\"p\"}}]";
  EXPECT_EQ(ListWith(list, L"{\"commandParams\":{\"path\":\"p\"}}"), std::nullopt);
  EXPECT_EQ(ListWith(list, L"{\"commandParams\":{\"path\":\"p\",\"delayDeliverySec\":\"9\"}}"),
            std::nullopt);
  EXPECT_EQ(ListWith(list, L"{ \"x\" : 1 }"), std::nullopt);
  EXPECT_EQ(ListWith(L"[{\"commandParams\":[1]}]", L"{\"commandParams\":[1]}"), std::nullopt);
  EXPECT_NE(ListWith(list, L"{\"x\":1,\"delayDeliverySec\":\"5\"}"), std::nullopt);
  EXPECT_NE(ListWith(list, L"{\"commandParams\":{\"path\":\"q\"}}"), std::nullopt);
  EXPECT_NE(ListWith(list, L"{\"x\":1.0}"), std::nullopt);
}

// The delay may come anywhere in the parameters, more than once and next to similar members.
TEST(ListWith, FindsTheSameRequestWhereverItsDelayStands) {
  const std::wstring form = L"{\"e\":7,\"commandParams\":{\"delayDelivery\":1,\"x\":2},\"z\":3}";
  static constexpr std::pair<bool, const wchar_t*> kCases[] = {
      {true, L"\"delayDelivery\":1,\"x\":2"},
      {true, L"\"delayDeliverySec\":\"5\",\"delayDelivery\":1,\"x\":2"},
      {true, L"\"delayDelivery\":1,\"delayDeliverySec\":{\"a\":[]},\"x\":2"},
      {true, L"\"delayDelivery\":1,\"x\":2,\"delayDeliverySec\":5"},
      {true, L"\"delayDeliverySec\":1,\"delayDelivery\":1,\"\\u0064elayDeliverySec\":2,\"x\":2"},
      {false, L"\"delayDelivery\":1,\"delayDeliverySeC\":5,\"x\":2"},
      {false, L"\"delayDelivery\":1,\"x\":\"delayDeliverySec\""},
      {false, L"\"delayDelivery\":1,\"delayDeliverySec\":5,\"x\":3"},
      {false, L"\"x\":2,\"delayDeliverySec\":5,\"delayDelivery\":1"},
      {false, L"\"delayDeliverySec\":5"},
  };
  for (const auto& [same, parameters] : kCases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(parameters)));
    const std::wstring stored =
        L"[5,{},{\"e\":7,\"commandParams\":{" + std::wstring(parameters) + L"},\"z\":3}]";
    EXPECT_EQ(ListWith(stored, form) == std::nullopt, same);
  }
}

TEST(ListWithout, RemovesTheFirstElementOfExactlyThatTextOrOnceFiredInAnySpacing) {
  EXPECT_EQ(ListWithout(L"[{\"a\":1},{\"b\":2},{\"a\":1}]", L"{\"a\":1}"),
            L"[{\"b\":2},{\"a\":1}]");
  EXPECT_EQ(ListWithout(L"[5, {\"a\":1} ]", L"{\"a\":1}"), L"[5]");
  EXPECT_EQ(ListWithout(L"[5,{\"a\":1}]", L"5"), std::nullopt);
  EXPECT_EQ(ListWithout(L"[{\"a\":1,\"b\":2}]", L"{\"b\":2,\"a\":1}"), std::nullopt);
  EXPECT_EQ(ListWithout(L"[{\"a\":1}]", L"{\"a\": 1}"), std::nullopt);
  EXPECT_EQ(ListWithout(L"", L"{}"), std::nullopt);
  EXPECT_EQ(ListWithoutCompleted(L"[{\"a\": 1},{}]", L" {\"a\" :1}"), L"[{}]");
}

TEST(RequestList, TakesBackEveryRequestThatItTook) {
  constexpr std::size_t kDeepest = 127;  // inside the request's own object
  const std::wstring request = Nested(kDeepest);
  const std::optional<std::wstring> list = ListWith(L"", request);
  ASSERT_TRUE(list);
  EXPECT_EQ(ListWith(*list, request), std::nullopt);
  EXPECT_EQ(ListWithout(*list, request), L"[]");
  EXPECT_THROW(ListWith(L"", Nested(kDeepest + 1)), Platform::WindowsRuntimeError);
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
