#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Operations on a stored list of subscription requests: the text of a JSON array whose elements are
// the clients' objects. An empty string is an empty list.
//
// An object's text is compact JSON as JsonObject::Stringify returns it, which may spell a value
// differently than the client did. Every function throws Platform::WindowsRuntimeError with
// Json::kInvalidJsonString if the list is not a JSON array, so that an unreadable list is never
// overwritten. Time and memory are linear in the length of the list.
namespace Vx::Tessel::Server::Storage {

// The maximum length, in characters, of a stored request and of the text that identifies it.
inline constexpr std::size_t kMaxStoredRequest = std::size_t{1024} * 1024;

// Returns `list` with `request` appended, or nothing if an element has the same normalized form:
// its text without the "delayDeliverySec" of its "commandParams". If `list` is empty, does not
// reformat `request`. Also throws as above if `request` is not a JSON object, and std::length_error
// if its compact text is longer than kMaxStoredRequest.
std::optional<std::wstring> ListWith(std::wstring_view list, std::wstring_view request);

// Returns `list` without the first element whose text is `request`, or nothing if there is none.
std::optional<std::wstring> ListWithout(std::wstring_view list, std::wstring_view request);

// Like ListWithout, but for a request that has fired. Ignores white space in `request`, which may
// be the client's text instead of the stored one.
std::optional<std::wstring> ListWithoutCompleted(std::wstring_view list, std::wstring_view request);

// Returns the text of each element in order, or nothing for an element that is not an object.
std::vector<std::optional<std::wstring>> RequestsOf(std::wstring_view list);

}  // namespace Vx::Tessel::Server::Storage
