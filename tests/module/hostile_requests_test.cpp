// Requests that no client of good will sends, to the module as it is shipped.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "json/json_object.h"
#include "json/json_text.h"
#include "module/loaded_service.h"
#include "storage/store_file.h"
#include "support/handle_gauge.h"
#include "support/setting.h"
#include "support/temp_folder.h"

namespace Vx::Tests {
namespace {

using Text = std::wstring;

constexpr std::uint32_t kSeed = 20240731;  // every run sends the same
constexpr std::uint32_t kLastId = 22;
constexpr std::uint32_t kInvalidRequest = 0x20000003;
constexpr std::uint32_t kNoPackageManager = 0x80040154;  // the emulator has none
constexpr std::size_t kMaxResponse = 65536;
constexpr std::size_t kDeep = 100000;

Text Repeated(std::wstring_view piece, std::size_t count) {
  Text text;
  for (std::size_t i = 0; i < count; ++i) text += piece;
  return text;
}

Text Nested(std::wstring_view open, std::wstring_view close, std::size_t levels) {
  return Repeated(open, levels) + L"1" + Repeated(close, levels);
}

// Values to stand where another is expected, some of them no JSON at all; a space parts them.
constexpr std::wstring_view kValues =
    LR"(null true false [] {} "" 0 -0 -1 7.9 1 4294967295 4294967296 9223372036854775808 )"
    LR"(99999999999999999999999999999999 1e308 1e309 -1e999 1e-999 1e99999999999999999999 )"
    LR"(1E+00000000000000001 NaN Infinity 0x10 01 1. .5 +1 "7" "\u0000" "C:\\a\u0000b.exe" )"
    LR"("\ud800" "\udc00" "\udc00\ud800" "\ud83d\ude00" "\x" "\u12" "open 'single' undefined )"
    LR"([1,] {"a":1,} {"a":1,"a":{}} {1:2} [null,[null,{"":null}]] /**/1 "%s%n%S%99999d" )"
    LR"("99999999999999999999" "-5" "1e9" "0x7fffffff" "..\\..\\.." "\\\\server\\share\\a.exe" )"
    LR"("\\\\?\\C:\\a.exe" "CON" "C:\\windows\\system32\\cmd.exe:stream")";

// Texts of units that are no characters, between quotation marks.
constexpr std::wstring_view kUnits[] = {L"\xD800", L"\xDC00", L"\xDC00\xD800", L"\xFFFF\x1"};

const std::vector<Text>& Values() {
  static const std::vector<Text> values = [] {
    std::vector<Text> made{Text(5000, L'9'),        L"0." + Text(5000, L'3'),
                           Nested(L"[", L"]", 100), Nested(L"{\"a\":", L"}", 126),
                           Nested(L"[", L"]", 128), Nested(L"[", L"]", 129)};
    for (const std::wstring_view units : kUnits) made.push_back(L"\"" + Text(units) + L"\"");
    std::wistringstream words{Text(kValues)};
    for (Text word; words >> word;) made.push_back(word);
    return made;
  }();
  return values;
}

// What is too large to be put everywhere.
std::vector<Text> LargeValues() {
  return {L"\"" + Text(70000, L'x') + L"\"",
          L"\"" + Repeated(L"\\u0041", 60000) + L"\"",
          L"\"" + Text(500000, wchar_t{0x20AC}) + L"\"",
          L"\"" + Text(4000000, L'x') + L"\"",
          Text(2000000, L' ') + L"1",
          L"[" + Repeated(L"0,", 100000) + L"0]",
          L"{" + Repeated(L"\"a\":0,", 50000) + L"\"a\":0}",
          Nested(L"[", L"]", kDeep),
          Nested(L"{\"a\":", L"}", kDeep),
          Text(kDeep, L'['),
          Repeated(L"{\"a\":", kDeep)};
}

struct Member {
  const wchar_t* key;
  const wchar_t* value;
};

// The request of good will of each kind; every member of it is attacked in turn.
const std::vector<std::vector<Member>>& Templates() {
  static const std::vector<std::vector<Member>> templates = {
      {{L"powerEventType", L"7"},
       {L"eventAction", L"1"},
       {L"commandParams", LR"({"path":"C:\\none.exe","arguments":"a"})"}},
      {{L"powerEventType", L"7"},
       {L"eventAction", L"2"},
       {L"commandParams", LR"({"packageFamilyName":"f","appServiceName":"s","payload":{}})"}},
      {{L"zephraEventType", L"1"},
       {L"zephraEventAction", L"1"},
       {L"commandParams", LR"({"path":"C:\\none.exe"})"}},
      {{L"catalogEvent", L"7"},
       {L"catalogAction", L"1"},
       {L"packageFamilyName", L"\"f\""},
       {L"catalogActionParams", LR"({"path":"C:\\none.exe"})"}},
      {{L"keyName", L"\"hostile\""}},
      {{L"packageFamilyName", L"\"f\""}},
      {{L"parameter", L"\"p\""}},
      {{L"launched", L"true"}},
  };
  return templates;
}

// The command that each template is meant for; the first four are subscriptions.
constexpr std::array kCommandOf = {9U, 9U, 14U, 7U, 3U, 6U, 17U, 13U};
constexpr std::array kSubscribe = {9U, 9U, 14U, 7U};

// The members inside the parameters of a command.
constexpr std::array kParameters = {L"path",           L"arguments",         L"delayDeliverySec",
                                    L"appServiceName", L"packageFamilyName", L"payload"};

enum class Twice { No, Before, After };

// The request with member `index` replaced, or there twice.
Text Request(const std::vector<Member>& members, std::size_t index, const Text& value,
             Twice twice) {
  Text text = L"{";
  for (std::size_t i = 0; i < members.size(); ++i) {
    const Text key = Text(L"\"") + members[i].key + L"\":";
    if (i != 0) text += L",";
    if (i == index && twice == Twice::Before) text += key + value + L",";
    text += key + (i == index && twice == Twice::No ? value : Text(members[i].value));
    if (i == index && twice == Twice::After) text.append(L",").append(key).append(value);
  }
  return text + L"}";
}

// A subscription to a power event whose command has `value` for one of its parameters.
Text WithParameter(const wchar_t* parameter, const Text& value, bool notify) {
  Text rest = notify ? LR"("payload":{},"appServiceName":"s","packageFamilyName":"f")"
                     : LR"("path":"C:\\none.exe")";
  return Text(LR"({"powerEventType":7,"eventAction":)") + (notify ? L"2" : L"1") +
         LR"(,"commandParams":{")" + parameter + L"\":" + value + L"," + rest + L"}}";
}

class HostileRequestsTest : public testing::Test {
 protected:
  static constexpr std::int32_t kKept = 4711;

  HostileRequestsTest() {
    service.Execute(20, L"{}");
    PlantCanary();
  }

  // A value of another service, which must be there unchanged whatever is asked for.
  void PlantCanary() {
    Tessel::Server::Storage::BsonDocument document;
    document.Set("sleep_state", Tessel::Server::Storage::BsonElement::Int32(kKept));
    WriteBytes(store.FilePath(), StoreFile(document.Encoded()));
  }

  void Send(std::uint32_t id, const Text& request) {
    const ModuleReply reply = service.Execute(id, request);
    ++sent;
    if (Documented(id, reply) && WellFormed(reply)) return;
    ADD_FAILURE() << "id " << id << " answered " << std::hex << reply.code << " to "
                  << testing::PrintToString(request.substr(0, 300));
  }

  // The events at which what was subscribed runs, and a look at what is kept.
  void Deliver() {
    for (const std::uint32_t code : {7U, 4U, 0U, 18U, 0xFFFFFFFFU}) {
      service.Slots().power_event_task(code);
    }
    for (const std::uint32_t code : {5U, 6U, 0x80000000U}) service.Slots().OnSessionChange(code);
    Send(16, L"{}");
    Send(20, L"{}");
    EXPECT_TRUE(ThreadsEnd(quietThreads + kSystemThreads)) << ThreadCount() << " threads are left";
    EXPECT_EQ(service.Execute(21, L"{}").response,
              LR"({"result":{"sleepState":)" + std::to_wstring(kKept) + L"}}");
    EXPECT_EQ(DocumentOf(store.FilePath()).Find("sleep_state")->AsInt32(), kKept);
  }

  // A few threads belong to the system's own pools, which grow when they like.
  static constexpr std::size_t kSystemThreads = 4;

  PrivateStore store;
  LoadedService service;
  std::size_t quietThreads = ThreadCount();
  std::size_t sent = 0;

 private:
  static std::uint32_t Code(std::int32_t error) { return static_cast<std::uint32_t>(error); }

  static bool Documented(std::uint32_t id, const ModuleReply& reply) {
    static constexpr std::array kCodes = {0U,          0x20000001U, 0x20000002U, 0x20000003U,
                                          0x20000008U, 0x20000009U, 0x2000000AU};
    static const std::array kPackageCodes = {kNoPackageManager,
                                             0x20000004U,
                                             0x20000005U,
                                             0x20000006U,
                                             0x20000007U,
                                             Code(Json::kInvalidJsonString),
                                             Code(Json::kJsonValueNotFound),
                                             Code(Json::kIllegalMethodCall)};
    const auto has = [&](const auto& codes) {
      return std::find(codes.begin(), codes.end(), reply.code) != codes.end();
    };
    if (id > kLastId || id == 1) return reply.code == 0x20000001 || reply.code == kInvalidRequest;
    return has(kCodes) || (id == 7 && has(kPackageCodes));
  }

  static bool WellFormed(const ModuleReply& reply) {
    if (!reply.response) return reply.code == kInvalidRequest;
    Json::InlineDocument<1024> document;
    return reply.code != kInvalidRequest && reply.response->size() <= kMaxResponse &&
           Json::ParseJson(*document, *reply.response, Json::kMaxListNesting + 3) &&
           document->IsObject();
  }
};

TEST_F(HostileRequestsTest, EveryCommandAnswersEveryValue) {
  std::mt19937 random(kSeed);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same run each time
  for (std::uint32_t id = 0; id <= kLastId + 1; ++id) {
    for (const Text& value : Values()) {
      const auto& members = Templates()[random() % Templates().size()];
      const auto twice = static_cast<Twice>(random() % 3);
      Send(id,
           random() % 3 == 0 ? value : Request(members, random() % members.size(), value, twice));
    }
  }
  Send(0xFFFFFFFF, L"{}");
  Deliver();
  EXPECT_GT(sent, 1500U);
}

TEST_F(HostileRequestsTest, SubscriptionsMadeOfAnythingAreDeliveredOrLogged) {
  for (std::size_t kind = 0; kind < std::size(kSubscribe); ++kind) {
    const auto& members = Templates()[kind];
    for (std::size_t i = 0; i < members.size(); ++i) {
      for (const Text& value : Values()) {
        Send(kSubscribe[kind], Request(members, i, value, Twice::No));
      }
    }
    Deliver();
    PlantCanary();
  }
  bool notify = false;
  for (const wchar_t* parameter : kParameters) {
    for (const Text& value : Values()) Send(9, WithParameter(parameter, value, notify = !notify));
  }
  Deliver();
}

TEST_F(HostileRequestsTest, MegabytesAndBottomlessNestingAreRefusedOrKept) {
  const std::vector<Text> values = LargeValues();
  for (std::size_t v = 0; v < values.size(); ++v) {
    // Each is work for the store, so the commands share them out between the values.
    for (auto id = static_cast<std::uint32_t>(v % 3); id <= kLastId; id += 3) Send(id, values[v]);
    for (const std::size_t kind : {v % 2, 2 + v % 6}) {
      const auto& members = Templates()[kind];
      Send(kCommandOf[kind], Request(members, members.size() - 1, values[v], Twice::No));
    }
    const wchar_t* parameter = kParameters[v % kParameters.size()];
    Send(9, WithParameter(parameter, values[v], v % 2 == 0));
    Deliver();
    PlantCanary();
  }
}

// Cuts, doubles, swaps and replaces pieces of a request at random.
Text Damaged(Text text, std::mt19937& random) {
  static constexpr std::wstring_view kPieces = L"{}[]\",:\\u0019eE-+.tfn \x7f\xD800\xDC00\xFFFF\x1";
  for (std::size_t changes = 1 + random() % 4; changes != 0 && !text.empty(); --changes) {
    const std::size_t at = random() % text.size();
    switch (random() % 4) {
      case 0:
        text[at] = kPieces[random() % kPieces.size()];
        break;
      case 1:
        text.insert(at, 1, kPieces[random() % kPieces.size()]);
        break;
      case 2:
        text.erase(at, 1 + random() % 5);
        break;
      default:
        text.insert(at, text.substr(random() % text.size(), random() % 40));
        break;
    }
  }
  return text;
}

TEST_F(HostileRequestsTest, DamagedRequestsLeaveNoHandle) {
  const std::uint32_t seed = Setting("VX_SEED", kSeed);
  SCOPED_TRACE(testing::Message() << "VX_SEED=" << seed);
  std::mt19937 random(seed);
  const auto round = [&] {
    for (int i = 0; i < 200; ++i) {
      const auto& members = Templates()[random() % Templates().size()];
      const std::size_t at = random() % members.size();
      const Text& value = Values()[random() % Values().size()];
      Send(random() % (kLastId + 2),
           Damaged(Request(members, at, value, static_cast<Twice>(random() % 3)), random));
    }
    Deliver();
    PlantCanary();
  };
  // The first measurement comes after every command has run once: WMI, for one, opens handles for
  // the life of the process, and a damaged request reaches it only by chance.
  for (std::uint32_t id = 0; id <= kLastId; ++id) Send(id, L"{}");
  for (int i = 0; i < 2; ++i) round();
  const std::uintptr_t before = HandleGauge();
  for (std::uint32_t left = Setting("VX_ROUNDS", 3); left != 0 && !HasFailure(); --left) round();
  EXPECT_LE(HandleGauge(), before);
}

}  // namespace
}  // namespace Vx::Tests
