#include "vxhost/log/log_formats.h"

#include <algorithm>
#include <cwchar>
#include <iterator>

#include "events/delivery_rules.h"

namespace Vx::Host {

namespace {

using namespace Tessel::Server::Services::Orvane;

std::wstring Seconds(std::int64_t milliseconds) {
  wchar_t text[32];
  std::swprintf(text, std::size(text), L"%lld.%03lld s",
                static_cast<long long>(milliseconds / 1000),
                static_cast<long long>(milliseconds % 1000));
  return text;
}

}  // namespace

std::optional<std::vector<std::wstring>> Match(std::wstring_view format,
                                               const std::wstring& message) {
  std::vector<std::wstring> parts;
  std::size_t at = 0;
  for (;;) {
    const std::size_t conversion = format.find(L'%');
    const std::wstring_view literal = format.substr(0, conversion);
    if (message.compare(at, literal.size(), literal) != 0) return std::nullopt;
    at += literal.size();
    if (conversion == std::wstring_view::npos) break;
    format.remove_prefix(conversion + 2);
    const std::size_t following = format.find(L'%');
    const std::wstring_view next = format.substr(0, following);
    // What follows the last conversion may stand in its text too.
    const bool last = following == std::wstring_view::npos;
    const std::size_t end =
        last ? message.size() - std::min(message.size(), next.size()) : message.find(next, at);
    if (end == std::wstring::npos || end < at) return std::nullopt;
    parts.push_back(message.substr(at, end - at));
    at = end;
  }
  if (at != message.size()) return std::nullopt;
  return parts;
}

std::wstring Lateness(int delay, std::int64_t elapsed, bool standby) {
  const std::int64_t late = elapsed - DelayLength(delay).count();
  if (IsTooLong(delay) || delay < 0) return L"no delivery keeps its delay";
  if (standby) return L"Modern Standby ended its wait " + Seconds(-late) + L" early";
  return L"late by " + Seconds(late);
}

}  // namespace Vx::Host
