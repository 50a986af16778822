#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "json/json_text.h"

namespace Vx::Host {

// The line on which each value of a JSON text begins.
class LineIndex {
 public:
  // `document` is what ParseJson made of `text`. It must live, unchanged, as long as this object.
  LineIndex(const Json::WideDocument& document, const std::wstring& text);

  std::size_t LineOf(const Json::WideValue& value) const;

 private:
  std::unordered_map<const Json::WideValue*, std::size_t> lines;
};

// NAME in ${NAME}, and what stands for it.
using Definitions = std::map<std::wstring, std::wstring>;

// `text` with a definition in place of each ${NAME}. A name without a definition stays, and
// `unknown` receives it. An inserted text is not expanded again.
using UnknownName = std::function<void(const std::wstring&)>;
std::wstring Expanded(const std::wstring& text, const Definitions& definitions,
                      const UnknownName& unknown = {});

// Where a scenario is to be played.
enum class HarnessKind { Real, PrivateStore, Simulated };

// Every fault of a scenario, in order, as "line 4, step 2, \"expect.code\": ...": unknown parts,
// values of the wrong kind, names without a definition, and claims that the player could not check.
// Empty for a scenario that can be played.
std::vector<std::string> FaultsOf(const Json::WideDocument& scenario, const LineIndex& lines,
                                  const Definitions& definitions, HarnessKind where);

}  // namespace Vx::Host
