#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/logging.h"
#include "platform/windows_runtime_error.h"
#include "storage/bson_document.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

// The error code for a request that is already stored.
inline constexpr std::int32_t kAlreadySubscribed = 1;

// The list of subscription requests under one key of the shared store: a JSON array whose elements
// are the clients' own objects. Create one for each operation, on one thread. Several may coexist.
//
// A change holds the store's mutex while reading and writing, so that no concurrent change is lost.
// A list that is not a JSON array is never overwritten. A stored request's text is compact JSON:
// see request_list.h.
class RequestManager {
 public:
  // Receives a stored request's text. May throw Platform::WindowsRuntimeError and std::exception.
  using Handler = std::function<void(const std::wstring& request)>;
  using ErrorCallback =
      std::function<void(const std::wstring& request, const Platform::WindowsRuntimeError& error)>;

  // Opens the store and reads the document. If the store cannot be opened, logs that. The list is
  // then empty, and nothing is stored.
  RequestManager(std::string embeddedDocument, std::string listKey);
  RequestManager(const RequestManager&) = delete;
  RequestManager& operator=(const RequestManager&) = delete;
  ~RequestManager() = default;

  // Adds a request. Returns false if it could not be stored, if its compact text is longer than
  // kMaxStoredRequest, or if the three lists together would exceed 8,388,608 characters. Throws
  // Platform::WindowsRuntimeError with kAlreadySubscribed if the same request, apart from its
  // delay, is already stored, and the JSON layer's error if the text is not a JSON object or the
  // stored list is not a JSON array. Logs store failures.
  bool PersistRequest(std::wstring_view request);

  enum class Removal { Removed, Unknown, Failed };

  // Removes the first stored request with exactly this text. Returns Unknown if there is none, and
  // Failed if the store cannot be used. Throws the JSON layer's error if the stored
  // list is not a JSON array. Logs store failures.
  Removal RemoveRequest(std::wstring_view request);

  // Removes a one-shot request that has fired, ignoring white space in `request`. Returns true if
  // the list no longer contains it, even if it was removed earlier. Returns false if there is no
  // store, or if the list could not be read or written, which is logged.
  bool CompleteRequest(std::wstring_view request);

  // Calls `handler` once for every stored request, in stored order. If it throws, logs the error,
  // passes it to `onError` (with standard exceptions mapped to E_OUTOFMEMORY or E_FAIL) and
  // continues. An error from `onError` propagates. If the stored list is not a JSON array, logs
  // that and treats the list as empty. Holds no lock during the calls.
  void RegisterExistingRequests(const Handler& handler, const ErrorCallback& onError);

  // Returns the text of the stored array as of construction, or an empty string if there is none.
  // If the stored value is not a string, returns text that is not a JSON array.
  std::wstring StoredList() const;

  // Like StoredList, but throws std::runtime_error if the store or the document could not be read.
  std::wstring RequireStoredList() const;

  // The format strings for logging an exception from the store.
  struct FailureTexts {
    const wchar_t* runtime;   // a Windows Runtime error: message and code
    const wchar_t* standard;  // a standard exception: description
  };

 private:
  // Receives the stored list's text. Returns the new text, or nothing to leave it unchanged.
  using Edit = std::function<std::optional<std::wstring>(const std::wstring& list)>;

  // Returns the total length of the other two lists as of construction.
  std::size_t OtherLists() const;

  // Applies `edit` to the stored list, or to an empty one if there is no store. Returns false if
  // the new list could not be stored, and nothing if an exception was caught, which is logged. A
  // Platform::WindowsRuntimeError from `edit` propagates.
  std::optional<bool> Change(const FailureTexts& texts, const Edit& edit);

  std::string documentName;
  std::string key;
  std::unique_ptr<Storage::CapDataStore> store;
  bool readable = false;  // whether `document` was read from the store at construction
  Storage::BsonDocument document;
  Logging::TraceLogger* logger;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
