// Command 20, above all when the lists cannot be read or do not fit into the response.

#include <filesystem>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <windows.h>

#include "platform/unique_handle.h"
#include "service/simulated_service.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "storage/store_file.h"

namespace Vx::Tests {
namespace {

using Element = Tessel::Server::Storage::BsonElement;
using Store = Tessel::Server::Storage::CapDataStore;
using namespace Tessel::Server::Services::Orvane;  // NOLINT(google-build-using-namespace)
using testing::Contains;
using testing::HasSubstr;

constexpr std::uint32_t kRefused = 0x20000002;
constexpr wchar_t kNone[] = LR"({"result":{"power_events":[],"zephra_events":[]}})";

class GetSubscriptionsTest : public SimulatedServiceTest {
 protected:
  Reply List() { return host.Execute(20, L"{}"); }

  static void Plant(const char* key, const Element& value) {
    ASSERT_TRUE(Store().mergeMember(kServiceDocument, key, value));
  }
};

// A client that takes a list for empty subscribes again, and so replaces a damaged store.
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
      {"no store, and none can be made",
       [&] {
         RemoveFile(path);
         machine.faults.FailNamed("Files.Touch");
       },
       0, kListed},
      {"an empty store", [&] { WriteBytes(path, {}); }, 0, kListed},
      {"an empty text", [] { Plant(kZephraSubscriptions, Element::Text("")); }, 0, kListed},
      {"an empty array", [] { Plant(kPowerSubscriptions, Element::Text("[]")); }, 0, kListed},
      {"no array", [] { Plant(kZephraSubscriptions, Element::Text("{}")); }, kRefused,
       L"GetSubscriptions threw exception the stored list is not a JSON array"},
      {"no text", [] { Plant(kPowerSubscriptions, Element::Int32(0)); }, kRefused,
       L"GetSubscriptions threw exception the stored list is not a JSON array"},
      {"no document", [] { Store().persist(kServiceDocument, "text"); }, kRefused,
       L"GetSubscriptions threw exception the stored list cannot be read"},
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

}  // namespace
}  // namespace Vx::Tests
