// Sends the module the fuzzers' requests, with values replaced by their "json" seeds.

#include "fuzz/wide_input.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "module/module_test.h"
#include "platform/packages.h"
#include "platform/windows_runtime_error.h"
#include "storage/store_file.h"
#include "support/test.h"

namespace Vx::Tests {
namespace {

using Text = std::wstring;

constexpr std::uint32_t kSeed = 20240731;  // every run sends the same requests
constexpr std::uint32_t kLastId = 22;
constexpr std::uint32_t kInvalidRequest = 0x20000003;
constexpr std::size_t kMaxResponse = 65536;
constexpr std::size_t kDeep = 100000;

std::vector<Text> Seeds(const wchar_t* folder) {
  std::vector<Text> lines;
  for (const auto& file :
       std::filesystem::directory_iterator(BuiltFile(std::wstring(L"corpus\\") + folder))) {
    std::ifstream content(file.path(), std::ios::binary);
    for (std::string line; std::getline(content, line);) {
      const auto bytes = std::as_bytes(std::span(line));
      lines.push_back(
          Fuzz::WideInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<Text> LargeValues() {
  return {L"\"" + Text(70000, L'x') + L"\"",
          L"\"" + Repeated(L"\\u0041", 60000) + L"\"",
          L"\"" + Text(500000, wchar_t{0x20AC}) + L"\"",
          L"\"" + Text(4000000, L'x') + L"\"",
          Text(2000000, L' ') + L"1",
          L"[" + Repeated(L"0,", 100000) + L"0]",
          L"{" + Repeated(L"\"a\":0,", 50000) + L"\"a\":0}",
          Text(kDeep, L'[') + Text(kDeep, L']'),
          Repeated(L"{\"a\":", kDeep) + L"1" + Text(kDeep, L'}'),
          Text(kDeep, L'['),
          Repeated(L"{\"a\":", kDeep)};
}

// Returns the offset of each value in a request, including nested ones. No seed has `":` elsewhere.
std::vector<std::size_t> ValuesOf(const Text& request) {
  std::vector<std::size_t> places;
  for (std::size_t at = request.find(L"\":"); at != Text::npos; at = request.find(L"\":", at + 1)) {
    places.push_back(at + 2);
  }
  return places;
}

Text Replaced(const Text& request, std::size_t place, const Text& value) {
  std::size_t end = place;
  for (int depth = 0; depth > 0 || (request[end] != L',' && request[end] != L'}'); ++end) {
    if (request[end] == L'{') ++depth;
    if (request[end] == L'}') --depth;
  }
  return request.substr(0, place) + value + request.substr(end);
}

std::uint32_t CommandOf(const Text& request) {
  static constexpr std::pair<const wchar_t*, std::uint32_t> kCommands[] = {
      {L"powerEventType", 9},    {L"zephraEventType", 14}, {L"catalogEvent", 7}, {L"keyName", 3},
      {L"packageFamilyName", 6}, {L"parameter", 17},       {L"launched", 13}};
  for (const auto& [key, id] : kCommands) {
    if (request.find(key) != Text::npos) return id;
  }
  return 20;
}

// Returns the error code of this machine's package manager, which command 7 returns unchanged, or
// 0. Windows returns an empty list for an unknown family. An emulator has no package manager
// (REGDB_E_CLASSNOTREG) or one whose functions are not implemented (E_NOTIMPL).
// https://learn.microsoft.com/en-us/uwp/api/windows.management.deployment.packagemanager.findpackagesforuser
std::uint32_t PackageManagersFailure() {
  try {
    Platform::WindowsMachine().packages->FindForUser(L"", L"f");
    return 0;
  } catch (const Platform::WindowsRuntimeError& error) {
    return static_cast<std::uint32_t>(error.code());
  }
}

class HostileRequestsTest : public ModuleTest {
 protected:
  static constexpr std::int32_t kKept = 4711;

  HostileRequestsTest() {
    Execute(20, L"{}");
    PlantCanary();
    for (const Text& seed : Seeds(L"requests")) {
      if (!ValuesOf(seed).empty() && seed.front() == L'{') requests.push_back(seed);
    }
  }

  void PlantCanary() {
    Tessel::Server::Storage::BsonDocument document;
    document.Set("sleep_state", Tessel::Server::Storage::BsonElement::Int32(kKept));
    WriteBytes(store.FilePath(), StoreFile(document.Encoded()));
  }

  void Send(std::uint32_t id, const Text& request) {
    const Hosting::CommandResult answer = Execute(id, request);
    ++sent;
    if (Documented(id, answer) && WellFormed(answer)) return;
    ADD_FAILURE() << "id " << id << " returned " << std::hex << answer.code << " for "
                  << testing::PrintToString(request.substr(0, 300));
  }

  // Fires the subscribed events and checks that the other service's value is unchanged.
  void Deliver() {
    for (const std::uint32_t code : {7U, 4U, 0U, 18U, 0xFFFFFFFFU}) {
      service.Slots()->power_event_task(code);
    }
    for (const std::uint32_t code : {5U, 6U, 0x80000000U}) service.Slots()->OnSessionChange(code);
    Send(16, L"{}");
    Send(20, L"{}");
    EXPECT_TRUE(ThreadsEnd(quietThreads + kSystemThreads)) << ThreadCount() << " threads are left";
    EXPECT_EQ(Execute(21, L"{}").text,
              LR"({"result":{"sleepState":)" + std::to_wstring(kKept) + L"}}");
    PlantCanary();
  }

  const std::vector<Text> values = Seeds(L"json");
  std::vector<Text> requests;
  std::size_t quietThreads = ThreadCount();
  std::size_t sent = 0;

 private:
  static bool Documented(std::uint32_t id, const Hosting::CommandResult& answer) {
    static constexpr std::array kCodes = {0U,          0x20000001U, 0x20000002U, 0x20000003U,
                                          0x20000008U, 0x20000009U, 0x2000000AU};
    static const std::array<std::uint32_t, 8> packageCodes = {
        0x20000004, 0x20000005, 0x20000006, 0x20000007,
        0x83750007, 0x83750009, 0x8000000E, PackageManagersFailure()};
    const auto has = [&](const auto& codes) {
      return std::find(codes.begin(), codes.end(), answer.code) != codes.end();
    };
    if (id > kLastId || id == 1) return answer.code == 0x20000001 || answer.code == kInvalidRequest;
    return has(kCodes) || (id == 7 && has(packageCodes));
  }

  static bool WellFormed(const Hosting::CommandResult& answer) {
    if (!answer.text) return answer.code == kInvalidRequest;
    Json::InlineDocument<1024> document;
    return answer.code != kInvalidRequest && answer.text->size() <= kMaxResponse &&
           Json::ParseJson(*document, *answer.text, Json::kMaxListNesting + 3) &&
           document->IsObject();
  }
};

TEST_F(HostileRequestsTest, EveryCommandReturnsADocumentedResultForEveryValue) {
  std::mt19937 random(kSeed);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same run each time
  for (std::uint32_t id = 0; id <= kLastId + 1; ++id) {
    for (const Text& value : values) {
      const Text& request = requests[random() % requests.size()];
      const auto places = ValuesOf(request);
      Send(id,
           random() % 3 == 0 ? value : Replaced(request, places[random() % places.size()], value));
    }
  }
  Send(0xFFFFFFFF, L"{}");
  Deliver();
  EXPECT_GT(sent, 1500U);
}

TEST_F(HostileRequestsTest, SubscriptionsMadeOfAnythingAreDeliveredOrLogged) {
  std::set<std::pair<std::uint32_t, Text>> tried;
  for (const Text& request : requests) {
    for (const std::size_t place : ValuesOf(request)) {
      const std::size_t key = request.rfind(L'"', place - 3);
      if (!tried.emplace(CommandOf(request), request.substr(key, place - key)).second) continue;
      for (const Text& value : values) Send(CommandOf(request), Replaced(request, place, value));
    }
    Deliver();
  }
}

TEST_F(HostileRequestsTest, MegabytesAndBottomlessNestingAreRefusedOrKept) {
  std::size_t turn = 0;
  for (const Text& value : LargeValues()) {
    // Large values are slow, so each goes to a third of the commands and into three requests.
    for (auto id = static_cast<std::uint32_t>(turn % 3); id <= kLastId; id += 3) Send(id, value);
    for (int request = 0; request < 3; ++request, ++turn) {
      const Text& chosen = requests[turn % requests.size()];
      const auto places = ValuesOf(chosen);
      Send(CommandOf(chosen), Replaced(chosen, places[turn % places.size()], value));
    }
    Deliver();
  }
}

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
      const Text& request = requests[random() % requests.size()];
      const auto places = ValuesOf(request);
      const Text& value = values[random() % values.size()];
      Send(random() % (kLastId + 2),
           Damaged(Replaced(request, places[random() % places.size()], value), random));
    }
    Deliver();
  };
  // Measured only after every command has run once. WMI, for example, keeps handles open for the
  // life of the process, and a damaged request reaches it only by chance.
  for (std::uint32_t id = 0; id <= kLastId; ++id) Send(id, L"{}");
  for (int i = 0; i < 2; ++i) round();
  const std::uintptr_t before = HandleGauge();
  for (std::uint32_t left = Setting("VX_ROUNDS", 3); left != 0 && !HasFailure(); --left) round();
  EXPECT_LE(RestingHandleGauge(before + kMutexEventsGauge), before + kMutexEventsGauge);
}

}  // namespace
}  // namespace Vx::Tests
