#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "json/json_text.h"

namespace Vx::Hosting::Tool {

// Finds the line on which each value of a JSON text starts.
class LineIndex {
 public:
  // `document` is ParseJson's result for `text`. It must outlive this object unchanged.
  LineIndex(const Json::WideDocument& document, const std::wstring& text);

  std::size_t LineOf(const Json::WideValue& value) const;

 private:
  std::unordered_map<const Json::WideValue*, std::size_t> lines;
};

// Maps NAME in ${NAME} to its replacement.
using Definitions = std::map<std::wstring, std::wstring>;

// Returns `text` with each ${NAME} replaced by its definition. An undefined ${NAME} is left
// unchanged, and NAME is passed to `unknown`. Inserted text is not expanded again.
using UnknownName = std::function<void(const std::wstring&)>;
std::wstring Expanded(const std::wstring& text, const Definitions& definitions,
                      const UnknownName& unknown = {});

// Returns a value as text, with definitions expanded: a string unchanged, any other value as JSON.
std::wstring Expanded(const Json::WideValue& value, const Definitions& definitions);

// Returns a member of `object` in the same form, or `absent` if there is none.
std::wstring MemberText(const Json::WideValue& object, const wchar_t* key,
                        const Definitions& definitions, const wchar_t* absent = L"");

enum class HarnessKind { Real, PrivateStore, Simulated };

// Returns every fault of a scenario, in order, as "line 4, step 2, \"expect.code\": ...": unknown
// parts, values of the wrong kind, undefined names, and expectations that the player could not
// check. Returns none if the scenario can be played.
std::vector<std::string> FaultsOf(const Json::WideDocument& scenario, const LineIndex& lines,
                                  const Definitions& definitions, HarnessKind where);

}  // namespace Vx::Hosting::Tool
