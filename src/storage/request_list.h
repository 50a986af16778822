#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The rules of a stored list of subscription requests: the text of a JSON array whose elements are
// the clients' objects. An empty text is an empty list.
//
// An object's text is compact JSON, each value in the writer's one spelling. Every operation throws
// Platform::WindowsRuntimeError with Json::kInvalidJsonString when the list is no JSON array, so
// that a list that cannot be read is never written over; time and memory are linear in the list.
namespace Vx::Tessel::Server::Storage {

// `list` with `request` at its end, or nothing when an element has the same normalised form: its
// text without the "delayDeliverySec" of its "commandParams". The first request of a list is put in
// as it is, unchanged. Throws as above when `request` is not a JSON object.
std::optional<std::wstring> ListWith(std::wstring_view list, std::wstring_view request);

// `list` without the first element whose text is exactly `request`, or nothing when there is none.
std::optional<std::wstring> ListWithout(std::wstring_view list, std::wstring_view request);

// Like ListWithout, for a request that has fired: white space in `request` does not count, since it
// may be the text that the client sent and not the stored one.
std::optional<std::wstring> ListWithoutCompleted(std::wstring_view list, std::wstring_view request);

// The text of each element in order, or nothing for one that is no object.
std::vector<std::optional<std::wstring>> RequestsOf(std::wstring_view list);

}  // namespace Vx::Tessel::Server::Storage
