#include "vxhost/service/service_views.h"

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/windows_runtime_error.h"
#include "servicehost/guarded_folder.h"
#include "vxhost/service/log_follower.h"
#include "vxhost/service/pipe_client.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Host {

namespace {

constexpr std::uint32_t kListSubscriptions = 20;
// What cannot be asked for over the pipe.
constexpr char kNotListed[] =
    "No command lists package subscriptions; \"vxhost subscriptions\" reads them from the store.";
constexpr char kOmitted[] = " more do not fit into an answer; \"vxhost subscriptions\" lists them.";
constexpr char kNotReturned[] =
    "No command returns the other values; \"vxhost store show\" reads them from the store.";

constexpr DWORD kPoll = 100;  // milliseconds between two looks at the log

struct StoredValue {
  const char* key;
  std::uint32_t command;
  const wchar_t* request;
};
// The values that a command returns without changing any.
constexpr StoredValue kValues[] = {
    {"hasBeenInSMode", 4, L"{}"},
    {"qubo_autolaunch_software_happened", 5, LR"({"keyName":"qubo_autolaunch_software_happened"})"},
    {"qubo_autolaunch_registration_happened", 5,
     LR"({"keyName":"qubo_autolaunch_registration_happened"})"},
    {"qubo_wakeup_for_smode_skip", 5, LR"({"keyName":"qubo_wakeup_for_smode_skip"})"},
    {"ExecutedMcAfeeStub", 12, L"{}"},
    {"sleep_state", 21, L"{}"},
};

LogLine LineOf(const Json::JsonObject& record) {
  return {record.GetNamedString(L"level"), record.GetNamedString(L"provider"),
          record.GetNamedString(L"caller"), record.GetNamedString(L"message")};
}

}  // namespace

void RefuseForService(const ModuleOptions& options) {
  if (options.dll.empty() && !options.privateStore && !options.simulate && options.store.empty()) {
    return;
  }
  throw std::runtime_error("a running service has its own module and store");
}

Answer ExecuteInService(const std::string& name, std::uint32_t id, const std::wstring& request) {
  ResultEnvelope result = ConnectToService(Wide(name)).Execute({id, request});
  return {result.code, std::move(result.response)};
}

int ShowServiceSubscriptions(const std::string& name, Console& console) {
  const Answer answer = ExecuteInService(name, kListSubscriptions, L"{}");
  if (answer.code != 0 || !answer.text) {
    throw std::runtime_error("the service does not list its subscriptions: " +
                             Describe(answer.code));
  }
  const auto lists = Json::JsonObject::Parse(*answer.text).GetNamedObject(L"result");
  if (console.WritesJson()) {
    console.JsonResult(lists.Stringify());
  } else {
    for (const wchar_t* list : {L"power_events", L"zephra_events"}) {
      for (const Json::JsonValue& value :
           Json::JsonArray::Parse(lists.GetNamedValue(list).Text())) {
        console.Line(Utf8(list) + " " + Utf8(value.Text()));
      }
    }
  }
  if (const auto omitted = lists.Find(L"omitted")) {
    console.Note(Utf8(omitted->Text()) + kOmitted);
  }
  console.Note(kNotListed);
  return kDone;
}

int ShowServiceStore(const std::string& name, Console& console) {
  PipeClient client = ConnectToService(Wide(name));
  for (const StoredValue& value : kValues) {
    const ResultEnvelope result = client.Execute({value.command, value.request});
    const std::wstring text = result.code == 0 && result.response ? *result.response : L"null";
    if (console.WritesJson()) {
      console.JsonResult(LR"({"key":")" + Wide(value.key) + LR"(","answer":)" + text + L"}");
    } else {
      console.Line(std::string(value.key) + " " + Utf8(text));
    }
  }
  console.Note(kNotReturned);
  return kDone;
}

int WatchService(const std::string& name, int seconds, Console& console) {
  const std::uint32_t process = ProcessOfService(Wide(name));
  LogFollower follower(DataFolders(ProgramDataFolder(), Writers::System).Logs());
  std::fprintf(stderr, "Listening to process %lu%s\n", static_cast<unsigned long>(process),
               seconds == 0 ? "; Ctrl+C ends it" : "");
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(seconds) * 1000;
  while (seconds == 0 || GetTickCount64() < end) {
    const auto line = follower.Next();
    if (!line) {
      Sleep(kPoll);
      continue;
    }
    try {
      const auto record = Json::JsonObject::Parse(Wide(*line));
      // Another service may write to the same folder.
      if (Json::TruncateToUint32(record.GetNamedNumber(L"process")) != process) continue;
      console.LogResult(LineOf(record), record.GetNamedString(L"time"));
    } catch (const Platform::WindowsRuntimeError&) {
      continue;  // the torn line of a process that was killed
    }
  }
  return kDone;
}

}  // namespace Vx::Host
