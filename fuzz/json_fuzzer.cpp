#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "fuzz/wide_input.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "json/utf8.h"

namespace {

using Vx::Fuzz::Check;
using Vx::Json::JsonKind;
using Vx::Json::JsonObject;
using Vx::Json::JsonValue;
using Vx::Json::WideDocument;

std::optional<std::vector<JsonValue>> ElementsOf(const std::wstring& text) {
  try {
    return JsonValue::ParseArray(text);
  } catch (const Vx::Platform::WindowsRuntimeError& error) {
    Check(error.code() == Vx::Json::kInvalidJsonString, "one code for invalid text");
    return std::nullopt;
  }
}

// Returns whether rapidjson's own reader is a valid reference for this text. It stops at U+0000,
// limits long numbers differently and does not limit nesting.
bool CanCompare(const std::wstring& text) {
  constexpr std::size_t kLongest = 100;
  if (text.size() > kLongest || text.find(L'\0') != std::wstring::npos) return false;
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    const bool exponent = text[i] == L'e' || text[i] == L'E';
    const std::size_t digits = text.find_first_not_of(L"+-0123456789", i + 1);
    if (exponent && std::min(digits, text.size()) - i > 3) return false;
  }
  return true;
}

bool RapidjsonAccepts(const std::wstring& text) {
  constexpr unsigned kFlags =
      rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
  try {
    WideDocument document;
    return !document.Parse<kFlags>(text.c_str()).HasParseError();
  } catch (const Vx::Json::Misuse&) {
    return false;  // one of rapidjson's assertions failed
  }
}

// Reads a value as each kind in turn. Only reading it as its actual kind may succeed.
void Ask(const JsonValue& value) {
  const auto answered = [](const auto& call) {
    try {
      call();
      return true;
    } catch (const Vx::Platform::WindowsRuntimeError& error) {
      Check(error.code() == Vx::Json::kIllegalMethodCall, "one code for another kind");
      return false;
    }
  };
  const JsonKind kind = value.Kind();
  Check(answered([&] { value.AsString(); }) == (kind == JsonKind::String), "string");
  Check(answered([&] { value.AsNumber(); }) == (kind == JsonKind::Number), "number");
  Check(answered([&] { value.AsObject(); }) == (kind == JsonKind::Object), "object");
  if (kind == JsonKind::Object) {
    const JsonObject object = value.AsObject();
    const std::wstring less = object.StringifyWithout(L"a", L"b");
    Check(JsonObject::Parse(less).StringifyWithout(L"a", L"b") == less,
          "nothing is left to remove");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text = Vx::Fuzz::WideInput(data, size);
  WideDocument document;
  const bool valid = Vx::Json::ParseJson(document, text);
  if (CanCompare(text)) Check(valid == RapidjsonAccepts(text), "both readers agree");

  const auto elements = ElementsOf(L"[" + text + L"]");
  Check(!valid || elements, "both layers accept the same");
  for (const JsonValue& element : elements.value_or(std::vector<JsonValue>())) {
    const std::wstring compact = element.Text();
    Check(JsonValue::ParseArray(L"[" + compact + L"]").front().Text() == compact,
          "compact text stays");
    Ask(element);
  }
  if (valid) {
    const std::wstring written = Vx::Json::JsonText(document);
    WideDocument again;
    Check(Vx::Json::ParseJson(again, written), "what was written is valid");
    Check(Vx::Json::JsonText(again) == written, "writing is stable");
    Check(Vx::Json::ToWide(Vx::Json::ToUtf8(written)) == written, "UTF-8 loses nothing");
  }
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  if (Vx::Json::IsUtf8(bytes)) {
    Check(Vx::Json::ToUtf8(Vx::Json::ToWide(bytes)) == bytes, "valid UTF-8 comes back");
  }
  return 0;
}
