#include "vxhost/play/scenario.h"

#include <chrono>
#include <cwchar>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <windows.h>

#include "hosting/json_row.h"
#include "hosting/store_hold.h"
#include "hosting/text.h"
#include "platform/unique_handle.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"
#include "vxhost/play/harness.h"
#include "vxhost/play/machine_steps.h"
#include "vxhost/store/store.h"

namespace Vx::Hosting::Tool {

namespace {

using Json::WideValue;
using Tessel::Server::Services::Orvane::kServiceDocument;
using Tessel::Server::Storage::BsonDocument;
using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::BsonKind;
using Tessel::Server::Storage::CapDataStore;

constexpr int kDefaultWait = 10;  // seconds
constexpr wchar_t kCaller[] = L"vxhost";

// A program that runs until the scenario ends.
class Helper {
 public:
  Helper(const std::wstring& path, const std::wstring& arguments) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    std::wstring commandLine = L"\"" + path + L"\" " + arguments;
    if (CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                       nullptr, &startup, &started) == 0) {
      throw std::runtime_error("cannot start " + Utf8(path));
    }
    process.reset(started.hProcess);
    Platform::UniqueHandle thread(started.hThread);
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;
  ~Helper() {
    TerminateProcess(process.get(), 0);
    WaitForSingleObject(process.get(), 5000);
  }

 private:
  Platform::UniqueHandle process;
};

// Converts an integer to int32 if it fits, otherwise to int64.
BsonElement PlainElement(const WideValue& value, const Definitions& definitions) {
  if (value.IsNull()) return BsonElement();
  if (value.IsBool()) return BsonElement::Boolean(value.GetBool());
  if (value.IsInt()) return BsonElement::Int32(value.GetInt());
  if (value.IsInt64()) return BsonElement::Int64(value.GetInt64());
  if (value.IsString()) return BsonElement::Text(Expanded(value, definitions));
  return BsonElement::Text(Json::JsonText(value));
}

// Stores a value as another service would: a scalar under its key, an object's members in the
// document of that name. Expands definitions in strings.
void StoreValue(const std::string& key, const WideValue& value, const Definitions& definitions) {
  if (!value.IsObject()) {
    CapDataStore().persist(key, PlainElement(value, definitions));
    return;
  }
  for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
    CapDataStore().mergeMember(key, Utf8(member->name.GetString()),
                               PlainElement(member->value, definitions));
  }
}

// Converts {KEY: {"type", "value"}}, as printed by "store show". The parser limits the depth.
BsonDocument TypedDocument(const WideValue& object) {
  BsonDocument document;
  for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
    const std::string key = Utf8(member->name.GetString());
    const bool typed = member->value.IsObject();
    const WideValue* type = typed ? FindMember(member->value, L"type") : nullptr;
    const WideValue* value = typed ? FindMember(member->value, L"value") : nullptr;
    const BsonKind kind = KindNamed(type != nullptr && type->IsString() ? TextOf(*type) : L"");
    auto element = value == nullptr ? std::nullopt : ScalarOf(kind, *value);
    if (kind == BsonKind::Null) element = BsonElement();
    if (kind == BsonKind::Document && value != nullptr && value->IsObject()) {
      element = BsonElement(TypedDocument(*value));
    }
    if (!element) {
      throw std::runtime_error("the initial store cannot contain \"" + key +
                               "\": " + Utf8(Json::JsonText(member->value)));
    }
    document.Set(key, *element);
  }
  return document;
}

// Polls `condition` every few milliseconds of real time. Returns false if `seconds` elapse first.
bool WaitUntil(int seconds, const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    Sleep(5);
  }
  return true;
}

class ScenarioRunner {
 public:
  ScenarioRunner(const Definitions& names, Harness& where) : definitions(names), harness(where) {}

  bool Play(const WideValue& steps, const LineIndex& lines) {
    for (rapidjson::SizeType i = 0; i < steps.Size(); ++i) {
      const std::size_t line = lines.at(&steps[i]);
      harness.record.BeginStep(line, Text(steps[i], L"say"));
      try {
        Step(steps[i]);
      } catch (const std::runtime_error& error) {
        throw std::runtime_error("line " + std::to_string(line) + ", step " +
                                 std::to_string(i + 1) + ": " + error.what());
      }
      harness.record.EndStep();
    }
    if (harness.machine != nullptr) RequireRefusal(*harness.machine);
    return succeeded;
  }

 private:
  void Step(const WideValue& step) {
    if (const auto* text = FindMember(step, L"say")) harness.console.Heading(Utf8(Expand(*text)));
    if (harness.machine != nullptr) ChangeMachine(step, definitions, *harness.machine);
    if (const auto* values = FindMember(step, L"store")) Store(*values);
    if (FindMember(step, L"end") != nullptr) End("end");
    if (FindMember(step, L"restart") != nullptr) {
      End("end and start");
      harness.session = harness.newService();
      harness.session.Slots()->Start();
    }
    if (FindMember(step, L"start") != nullptr) {
      Call("start");
      harness.session.Slots()->Start();
    }
    if (FindMember(step, L"policy") != nullptr) Announce();
    if (const auto* id = FindMember(step, L"exec")) Execute(step, id->GetUint());
    if (const auto* code = FindMember(step, L"power")) {
      Call("power event " + std::to_string(code->GetUint()));
      harness.session.Slots()->power_event_task(code->GetUint());
    }
    if (const auto* code = FindMember(step, L"session")) {
      Call("session change " + std::to_string(code->GetUint()));
      harness.session.Slots()->OnSessionChange(code->GetUint());
    }
    if (const auto* copy = FindMember(step, L"copy")) Copy(*copy);
    if (const auto* path = FindMember(step, L"remove")) {
      std::error_code ignored;
      std::filesystem::remove(Expand(*path), ignored);
    }
    if (const auto* path = FindMember(step, L"run")) {
      helpers.push_back(std::make_unique<Helper>(Expand(*path), Text(step, L"arguments")));
    }
    if (harness.machine != nullptr) PassTime(step, *harness.machine);
    harness.showRepeated();
    if (const auto* file = FindMember(step, L"waitFor")) WaitForFile(*file);
    if (FindMember(step, L"showStore") != nullptr) {
      for (const std::string& line : StoreLines()) harness.console.Note("   store " + line);
    }
    if (const auto* expect = FindMember(step, L"expect")) ExpectTraces(*expect);
  }

  // Writes values as another service on the machine would.
  void Store(const WideValue& values) {
    const ServicesMutexHold hold(StoreUse::Write);
    for (auto value = values.MemberBegin(); value != values.MemberEnd(); ++value) {
      const std::string key = Utf8(value->name.GetString());
      Call("another service stores " + key + " = " + Utf8(Expand(value->value)));
      StoreValue(key, value->value, definitions);
    }
  }

  void Call(const std::string& text) {
    harness.record.Add({.text = Wide(text)});
    harness.console.Note("-> " + text);
  }

  void End(const std::string& call) {
    Call(call);
    harness.session.End();
    if (harness.machine != nullptr) harness.machine->clock.Settle();
  }

  std::wstring Expand(const WideValue& value) const { return Expanded(value, definitions); }
  std::wstring Text(const WideValue& object, const wchar_t* key,
                    const wchar_t* absent = L"") const {
    return MemberText(object, key, definitions, absent);
  }

  void Execute(const WideValue& step, std::uint32_t id) {
    const std::wstring text = Text(step, L"request", L"{}");
    harness.console.Request(id, text);
    const CommandResult answer = harness.session.Execute(id, text, kCaller);
    if (harness.machine != nullptr) harness.machine->clock.Settle();
    harness.record.Add(
        {.what = Happening::Command, .command = id, .request = text, .answer = answer});
    harness.console.Note("<- " + (answer.text ? Utf8(*answer.text) : std::string("(no response)")));
    harness.console.Note("   result " + Describe(answer.code));
    const auto* expect = FindMember(step, L"expect");
    if (expect == nullptr) return;
    if (const auto* code = FindMember(*expect, L"code")) {
      const auto wanted = static_cast<std::uint32_t>(std::wcstoul(code->GetString(), nullptr, 16));
      Check(answer.code == wanted, "the result code should be " + Describe(wanted));
    }
    if (const auto* response = FindMember(*expect, L"answer")) {
      const std::wstring wanted = Expand(*response);
      Check(answer.text == wanted, "the answer should be " + Utf8(wanted));
    }
  }

  // Announces a change as the component that applies the maker's policy does.
  void Announce() {
    constexpr std::uint32_t kPolicyChanged = 16;
    Call("the policy changed");
    const CommandResult answer = harness.session.Execute(kPolicyChanged, L"{}", kCaller);
    if (harness.machine != nullptr) harness.machine->clock.Settle();
    Check(answer.code == 0,
          "the policy should be announced, but the result is " + Describe(answer.code));
  }

  void Copy(const WideValue& copy) {
    const std::filesystem::path from = Text(copy, L"from");
    const std::filesystem::path to = Text(copy, L"to");
    std::error_code error;
    std::filesystem::create_directories(to.parent_path(), error);
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
    Check(!error, "cannot copy " + Utf8(from.wstring()) + " to " + Utf8(to.wstring()));
  }

  void WaitForFile(const WideValue& what) {
    const std::wstring path = Text(what, L"file");
    const std::wstring wanted = Text(what, L"contains");
    std::wstring content;
    const bool came = WaitUntil(Seconds(what), [&] {
      try {
        content = ReadTextFile(path);
      } catch (const std::runtime_error&) {
        content.clear();  // the file may come later
      }
      return !content.empty() && content.find(wanted) != std::wstring::npos;
    });
    if (FindMember(what, L"quiet") == nullptr) {
      harness.console.Note("   " + Utf8(path) + " says:");
      std::wistringstream lines(content);
      for (std::wstring line; std::getline(lines, line);) harness.console.Note(Utf8(line));
    }
    Check(came, Utf8(path) + " should say \"" + Utf8(wanted) + "\"");
  }

  void ExpectTraces(const WideValue& expect) {
    if (const auto* text = FindMember(expect, L"log")) {
      const std::wstring wanted = Expand(*text);
      // A simulated machine is idle by now, so do not wait.
      const int patience = harness.machine == nullptr ? Seconds(expect) : 0;
      const auto isLogged = [&] { return harness.record.Contains(Happening::Log, wanted); };
      Check(WaitUntil(patience, isLogged), "the log should contain \"" + Utf8(wanted) + "\"");
    }
    if (const auto* text = FindMember(expect, L"event")) {
      const std::wstring wanted = Expand(*text);
      Check(harness.record.Contains(Happening::Event, wanted),
            "this should have happened: \"" + Utf8(wanted) + "\"");
    }
    if (const auto* text = FindMember(expect, L"noEvent")) {
      const std::wstring unwanted = Expand(*text);
      Check(!harness.record.Contains(Happening::Event, unwanted),
            "this should not have happened: \"" + Utf8(unwanted) + "\"");
    }
    if (const auto* values = FindMember(expect, L"stored")) ExpectStored(*values);
  }

  void ExpectStored(const WideValue& values) {
    const ServicesMutexHold hold(StoreUse::Read);
    CapDataStore store;
    const auto document = store.readDocument(kServiceDocument);
    for (auto value = values.MemberBegin(); value != values.MemberEnd(); ++value) {
      const std::string key = Utf8(value->name.GetString());
      const std::wstring wanted = Expand(value->value);
      const auto stored = document.Find(key);
      const std::wstring text = stored ? stored->AsWideText().value_or(L"") : std::wstring();
      harness.console.Note("   the store contains " + key + " = \"" + Utf8(text) + "\"");
      Check(text == wanted, key + " should be stored as \"" + Utf8(wanted) + "\"");
    }
  }

  static int Seconds(const WideValue& object) {
    const auto* seconds = FindMember(object, L"seconds");
    return seconds == nullptr ? kDefaultWait : seconds->GetInt();
  }

  void Check(bool happened, const std::string& expectation) {
    if (happened) return;
    succeeded = false;
    harness.record.Add({.what = Happening::Failure, .text = Wide(expectation)});
    harness.console.Failure(expectation);
  }

  const Definitions& definitions;
  Harness& harness;
  std::vector<std::unique_ptr<Helper>> helpers;
  bool succeeded = true;
};

}  // namespace

Scenario::Scenario(const std::wstring& path, Definitions names, const ModuleOptions& module)
    : definitions(std::move(names)) {
  const std::wstring text = ReadTextFile(path);
  Json::ParseFault fault;
  if (!Json::ParseJson(document, text, Json::kMaxNesting, &fault)) {
    throw std::runtime_error(Utf8(path) + " is not valid JSON: " + FaultText(text, fault));
  }
  lines = LinesOf(document, text);
  const std::string faults = FaultsOf(document, lines, definitions, module);
  if (!faults.empty()) throw std::runtime_error(Utf8(path) + " cannot be played:" + faults);
  const auto* store = FindMember(document, L"store");
  if (store == nullptr || store->IsObject()) return;
  std::wstring file = Expanded(*store, definitions);
  if (file.find(L':') == file.npos) file = path.substr(0, path.rfind(L'\\') + 1) + file;
  Json::WideDocument shown;
  const bool valid = Json::ParseJson(shown, ReadTextFile(file)) && shown.IsObject();
  const WideValue* values = valid ? FindMember(shown, L"document") : nullptr;
  if (values == nullptr || !values->IsObject()) {
    throw std::runtime_error(Utf8(file) + " is not a store as \"vxhost store show\" prints it");
  }
  storeFile = TypedDocument(*values);
}

void Scenario::Prepare() const {
  for (const BsonDocument::Member& member : storeFile) {
    CapDataStore().persist(member.key, BsonElement(member.value));
  }
  const auto* store = FindMember(document, L"store");
  if (store == nullptr || !store->IsObject()) return;
  for (auto member = store->MemberBegin(); member != store->MemberEnd(); ++member) {
    StoreValue(Utf8(member->name.GetString()), member->value, definitions);
  }
}

bool Scenario::Play(Harness& harness) const {
  return ScenarioRunner(definitions, harness).Play(*FindMember(document, L"steps"), lines);
}

}  // namespace Vx::Hosting::Tool
