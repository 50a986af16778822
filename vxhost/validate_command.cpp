#include "vxhost/validate_command.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "events/delivery_rules.h"
#include "events/event_commands.h"
#include "events/subscription_forms.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/windows_runtime_error.h"
#include "security/file_trust.h"
#include "security/trusted_program.h"
#include "vxhost/text.h"

namespace Vx::Host {

namespace {

using namespace Tessel::Server::Services::Orvane;

struct Form : SubscriptionForm {
  const char* kind;
  std::vector<std::uint32_t> codes;
};

// The codes that Windows or the module sends.
const Form& FormOf(const Json::JsonObject& request) {
  static const Form kForms[] = {
      {kPowerForm, "power", {0x4, 0x6, 0x7, 0x9, 0xA, 0xB, 0x12, 0x8013}},
      {kZephraForm, "platform", {1, 2}},
      {kPackageForm, "package", {5, 7}},
  };
  for (const Form& form : kForms) {
    if (request.HasKey(form.event)) return form;
  }
  throw Platform::WindowsRuntimeError(
      Json::kJsonValueNotFound,
      L"not a subscription: powerEventType, zephraEventType and catalogEvent are all missing");
}

class Report {
 public:
  explicit Report(Console& where) : console(where) {}
  void Good(const std::string& text) { console.Line("  ok     " + text); }
  void Warn(const std::string& text) { console.Line("  hint   " + text); }
  void Bad(const std::string& text) {
    console.Line("  NEVER  " + text);
    runs = false;
  }
  void Because(const std::string& text) { console.Line("           - " + text); }
  bool Runs() const { return runs; }

 private:
  Console& console;
  bool runs = true;
};

void CheckDelay(const Json::JsonObject& params, Report& report) {
  const auto text = params.FindString(L"delayDeliverySec");
  if (!text) return;
  const std::optional<int> delay = LeadingInteger(*text);
  if (!delay) {
    report.Warn("delayDeliverySec \"" + Utf8(*text) + "\" is not a number: runs without a delay");
  } else if (*delay < -2) {
    report.Bad("delayDeliverySec " + std::to_string(*delay) + ": every delivery is dropped");
  } else {
    report.Good("runs " + std::to_string(std::max(*delay, 0)) + " s after the event");
  }
}

void CheckProgram(const LaunchCommand& command, Report& report) {
  if (const wchar_t* why = Tessel::Security::TrustedProgram::WhyNotOpened(command.Path())) {
    report.Bad("the path " + Utf8(why));
    return;
  }
  const auto keys = Tessel::Security::RestrictedKeys();
  const auto trust = Tessel::Security::JudgeFile(command.Path(), keys);
  if (trust.trusted) {
    report.Good("the program is trusted here");
    return;
  }
  report.Bad("the program is not trusted here:");
  const auto steps = Tessel::Security::Explain(trust, keys);
  for (const auto& step : steps) {
    if (!step.passed) report.Because(Utf8(step.text));
  }
}

void Check(const Json::JsonObject& request, Report& report) {
  const Form& form = FormOf(request);
  const std::uint32_t code = Json::TruncateToUint32(request.GetNamedNumber(form.event));
  const std::string event = std::string(form.kind) + " event " + std::to_string(code);
  if (std::find(form.codes.begin(), form.codes.end(), code) == form.codes.end()) {
    report.Bad(event + " never occurs");
  } else {
    report.Good(event);
  }
  const auto action =
      static_cast<EventAction>(Json::TruncateToUint32(request.GetNamedNumber(form.action)));
  const Json::JsonObject params = request.GetNamedObject(form.parameters);
  if (form.family != nullptr) {
    request.GetNamedString(form.family);
    if (params.HasKey(L"delayDeliverySec")) {
      report.Warn("package subscriptions run without a delay");
    }
  }
  const EventCommandPtr command = CreateEventCommand(action, params);
  CheckDelay(params, report);
  if (action == EventAction::Launch) {
    CheckProgram(static_cast<const LaunchCommand&>(*command), report);
  }
}

int Validate(const std::string& textOrFile, Console& console) {
  Report report(console);
  try {
    const std::wstring request = TextOrFile(textOrFile);
    Json::WideDocument document;
    Json::ParseFault fault;
    if (!Json::ParseJson(document, request, Json::kMaxNesting, &fault)) {
      report.Bad("not valid JSON: " + FaultText(request, fault));
    } else if (!document.IsObject()) {
      report.Bad("not a JSON object");
    } else {
      Check(Json::JsonObject::Parse(request), report);
    }
  } catch (const Platform::WindowsRuntimeError& error) {
    report.Bad(Utf8(error.message()));
  }
  console.Line(report.Runs() ? "It can run." : "It would never run.");
  return report.Runs() ? kDone : kNotMet;
}

constexpr char kFooter[] =
    "Exit code 0: it can run here; 1: it would never run, and the lines with NEVER give the "
    "reasons.\n"
    "  vxhost validate @subscription.json";

}  // namespace

void AddValidateCommand(CommandLine& line) {
  const auto request = std::make_shared<std::string>();
  line.Add("validate", "check a subscription before sending it", kFooter,
           [request](Console& console) { return Validate(*request, console); })
      .add_option("request", *request, "the subscription's JSON, or @FILE")
      ->required();
}

}  // namespace Vx::Host
