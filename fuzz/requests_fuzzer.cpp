#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "fuzz/fuzz_check.h"
#include "fuzz/wide_input.h"
#include "json/json_object.h"
#include "storage/path_pattern.h"
#include "storage/request_list.h"

namespace {

using Vx::Fuzz::Check;
using namespace Vx::Tessel::Server::Storage;

// Returns the result of `call`, or nothing if `call` rejects its input.
template <typename Call>
auto Try(const Call& call) -> std::optional<decltype(call())> {
  try {
    return call();
  } catch (const Vx::Platform::WindowsRuntimeError& error) {
    Check(error.code() == Vx::Json::kInvalidJsonString, "one code for invalid input");
    return std::nullopt;
  }
}

void CheckList(const std::wstring& list, const std::wstring& request) {
  const auto elements = Try([&] { return RequestsOf(list); });
  const auto valid = Try([&] { return Vx::Json::JsonObject::Parse(request).Stringify(); });
  const auto longer = Try([&] { return ListWith(list, request); });
  Check(longer.has_value() == (elements && valid), "valid input is taken, other input is not");
  if (!longer) return;

  if (!*longer) {
    const auto equal = [&](const auto& element) {
      return element && !ListWith(L"[" + *element + L"]", request);
    };
    Check(std::ranges::any_of(*elements, equal), "only an equal one refuses it");
    return;
  }
  Check(RequestsOf(**longer).size() == elements->size() + 1, "one request more");
  Check(!ListWith(**longer, request), "the same request is refused the second time");
  const std::optional<std::wstring> completed = ListWithoutCompleted(**longer, request);
  Check(completed && RequestsOf(*completed).size() == elements->size(), "it can be completed");
  Check(ListWithout(**longer, *valid) == completed, "and removed by its text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text = Vx::Fuzz::WideInput(data, size);
  static_cast<void>(IsFilePath(text));
  // The list ends at the first line that consists of a single "|".
  constexpr std::wstring_view kSeparator = L"\n|\n";
  const std::size_t at = text.find(kSeparator);
  if (at == std::wstring::npos) {
    CheckList({}, text);
  } else {
    CheckList(text.substr(0, at), text.substr(at + kSeparator.size()));
  }
  return 0;
}
