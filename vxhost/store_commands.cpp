#include "vxhost/store_commands.h"

#include <stdexcept>
#include <utility>

#include "events/event_commands.h"
#include "events/subscription_forms.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "json/utf8.h"
#include "platform/windows_runtime_error.h"
#include "storage/cap_data_store.h"
#include "storage/request_list.h"
#include "storage/request_manager.h"
#include "vxhost/services_mutex.h"
#include "vxhost/text.h"

#include <rapidjson/prettywriter.h>

namespace Vx::Host {

namespace {

using namespace Tessel::Server::Services::Orvane;
using Json::WideDocument;
using Json::WideValue;
using Tessel::Server::Storage::BsonDocument;
using Tessel::Server::Storage::BsonKind;
using Tessel::Server::Storage::BsonView;
using Tessel::Server::Storage::CapDataStore;
using Tessel::Server::Storage::StoreState;

// The writer of a document chooses its depth. Only the size of deeper documents is shown.
constexpr int kShownLevels = 32;

const wchar_t* KindName(BsonKind kind) {
  switch (kind) {
    case BsonKind::Double:
      return L"double";
    case BsonKind::String:
      return L"text";
    case BsonKind::Document:
      return L"document";
    case BsonKind::Binary:
      return L"binary";
    case BsonKind::Boolean:
      return L"bool";
    case BsonKind::Null:
      return L"null";
    case BsonKind::Int32:
      return L"int32";
    case BsonKind::Int64:
      return L"int64";
    default:
      return L"other";
  }
}

// A document as JSON: each member becomes an object with its type and its value, or its size in
// bytes where a value cannot be shown.
class StoreWriter {
 public:
  explicit StoreWriter(WideDocument& target) : pool(target.GetAllocator()) {}

  WideValue Document(const BsonDocument& document, int levelsLeft) {
    WideValue object(rapidjson::kObjectType);
    for (const BsonDocument::Member& member : document) {
      object.AddMember(WideValue(Json::ToWide(member.key), pool), Member(member.value, levelsLeft),
                       pool);
    }
    return object;
  }

 private:
  WideValue Member(const BsonView& view, int levelsLeft) {
    WideValue member(rapidjson::kObjectType);
    member.AddMember(L"type", WideValue(KindName(view.Kind()), pool), pool);
    if (const auto embedded = levelsLeft > 0 ? view.AsDocument() : std::nullopt) {
      member.AddMember(L"value", Document(*embedded, levelsLeft - 1), pool);
    } else if (WideValue value = Scalar(view); !value.IsNull()) {
      member.AddMember(L"value", value, pool);
    } else {
      member.AddMember(L"bytes", static_cast<std::uint64_t>(view.Bytes().size()), pool);
    }
    return member;
  }

  WideValue Scalar(const BsonView& view) {
    if (const auto text = view.AsWideText()) return WideValue(*text, pool);
    if (const auto flag = view.AsBoolean()) return WideValue(*flag);
    if (const auto number = view.AsInt32()) return WideValue(*number);
    if (const auto number = view.AsInt64()) return WideValue(*number);
    if (const auto number = view.AsDouble()) return WideValue(*number);
    return WideValue();
  }

  Json::WidePool& pool;
};

// Why a store in this state cannot be shown. Null if it can.
const char* Refusal(StoreState state) {
  switch (state) {
    case StoreState::Sound:
      return nullptr;
    case StoreState::Missing:
      return "the store cannot be read: there is no file";
    case StoreState::Damaged:
      return "the store cannot be read: it is damaged";
    case StoreState::OtherMachine:
      return "the store cannot be read: it was sealed on another machine";
    case StoreState::Linked:
      return "the store cannot be read: it is a link or has a second name";
    case StoreState::TooLarge:
      return "the store cannot be read: it is too large";
    case StoreState::NotOpened:
      return "the store cannot be read: it could not be opened, perhaps only for the moment";
  }
  return nullptr;
}

CapDataStore::Content ReadStore() {
  CapDataStore::Content content = CapDataStore().readAll();
  if (const char* const refusal = Refusal(content.state)) {
    throw std::runtime_error(std::string(refusal) + "; see\n\"Trouble\" in docs/operations.md");
  }
  return content;
}

struct ListForm : SubscriptionForm {
  const char* name;
};
constexpr ListForm kLists[] = {
    {kPowerForm, "power"}, {kZephraForm, "platform"}, {kPackageForm, "package"}};

std::string Cell(const std::string& text, std::size_t width) {
  return text.size() < width ? text + std::string(width - text.size(), ' ') : text + " ";
}

std::string Row(const std::string& event, const std::string& action, const std::string& delay,
                const std::string& target) {
  return Cell(event, 14) + Cell(action, 9) + Cell(delay, 7) + target;
}

std::string RequestRow(const ListForm& form, const std::wstring& text) {
  const auto request = Json::JsonObject::Parse(text);
  const auto event = Json::TruncateToUint32(request.GetNamedNumber(form.event));
  const auto action = Json::TruncateToUint32(request.GetNamedNumber(form.action));
  const auto params = request.GetNamedObject(form.parameters);
  const std::wstring delay = params.FindString(L"delayDeliverySec").value_or(L"0");
  // Made as the module makes it, so that this row shows what would run.
  CreateEventCommand(static_cast<EventAction>(action), params);
  std::wstring target = action == 1 ? params.GetNamedString(L"path") + L" " +
                                          params.FindString(L"arguments").value_or(std::wstring())
                                    : params.GetNamedString(L"packageFamilyName") + L" " +
                                          params.GetNamedString(L"appServiceName");
  if (form.family != nullptr) {
    target += L" (when " + request.GetNamedString(form.family) + L" goes)";
  }
  return Row(form.name + (" " + std::to_string(event)), action == 1 ? "start" : "message",
             Utf8(delay) + " s", Utf8(target));
}

// Returns the number of subscriptions in the list.
std::size_t ShowList(const ListForm& form, Console& console) {
  const std::wstring list = RequestManager(kServiceDocument, form.list).StoredRequests();
  const auto texts = Tessel::Server::Storage::RequestsOf(list);
  for (const auto& text : texts) {
    try {
      if (!text) throw Platform::WindowsRuntimeError(Json::kInvalidJsonString, L"not an object");
      console.Line(RequestRow(form, *text));
    } catch (const Platform::WindowsRuntimeError& error) {
      console.Line(Row(form.name, "-", "-",
                       "never runs: " + Utf8(error.message()) + ": " + Utf8(text.value_or(L""))));
    }
  }
  return texts.size();
}

int ShowStore(Console& console) {
  const ServicesMutexHold hold(ServicesMutexFor(StoreUse::Read));
  const CapDataStore::Content content = ReadStore();
  WideDocument document(rapidjson::kObjectType);
  auto& pool = document.GetAllocator();
  document.AddMember(L"storeId", WideValue(content.storeId, pool), pool);
  document.AddMember(L"document", StoreWriter(document).Document(content.document, kShownLevels),
                     pool);
  Json::TextBuffer buffer;
  Json::ScratchMemory scratch;
  rapidjson::PrettyWriter<Json::TextBuffer, Json::WideEncoding, Json::WideEncoding,
                          Json::ScratchMemory>
      writer(buffer, &scratch);
  writer.SetIndent(L' ', 2);
  document.Accept(writer);
  console.Lines(Utf8(buffer.View()));
  return kDone;
}

int ShowSubscriptions(Console& console) {
  const ServicesMutexHold hold(ServicesMutexFor(StoreUse::Read));
  ReadStore();  // throws for a damaged store, which RequestManager treats as empty
  console.Line(Row("EVENT", "ACTION", "DELAY", "TARGET"));
  std::size_t count = 0;
  for (const ListForm& form : kLists) count += ShowList(form, console);
  if (count == 0) console.Line("(none is stored)");
  return kDone;
}

constexpr char kStoreFooter[] =
    "Reads %ProgramData%\\Vx\\SharedServices\\shared_store.dat of this machine.\n"
    "  vxhost store show > store.json";
constexpr char kSubscriptionsFooter[] = "  vxhost subscriptions";

}  // namespace

void AddStoreCommands(CommandLine& line) {
  line.Add(line.AddGroup("store", "the shared store"), "show",
           "print the decrypted store as JSON, each value with its type", kStoreFooter, &ShowStore);
  line.Add("subscriptions", "list the stored subscriptions", kSubscriptionsFooter,
           &ShowSubscriptions);
}

std::vector<std::string> StoreLines() {
  const ServicesMutexHold hold(ServicesMutexFor(StoreUse::Read));
  WideDocument document;
  document.CopyFrom(StoreWriter(document).Document(ReadStore().document, kShownLevels),
                    document.GetAllocator());
  std::vector<std::string> lines;
  for (auto value = document.MemberBegin(); value < document.MemberEnd(); ++value) {
    lines.push_back(Utf8(value->name.GetString()) + " " + Utf8(Json::JsonText(value->value)));
  }
  return lines;
}

}  // namespace Vx::Host
