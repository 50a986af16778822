#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/logging.h"
#include "platform/windows_runtime_error.h"
#include "storage/bson_document.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Storage {
class CapDataStore;
}

namespace Vx::Tessel::Server::Services::Orvane {

// The code of the error that refuses a request which is stored already.
inline constexpr std::int32_t kAlreadySubscribed = 1;

// The list of subscription requests under one key of the shared store: a JSON array whose elements
// are the clients' own request objects. Made for one operation on one thread; several may exist.
//
// Changes are made to the list as it is stored at that moment, read and written under one hold of
// the store's mutex, so that managers in other threads and processes lose nothing. A stored list
// that is not a JSON array is never written over. The text of a stored request is its compact form:
// the client's tokens without the white space between them.
class RequestManager {
 public:
  // Called with a stored request's text. May throw Platform::WindowsRuntimeError or a standard
  // exception.
  using Handler = std::function<void(const std::wstring& request)>;
  using ErrorCallback =
      std::function<void(const std::wstring& request, const Platform::WindowsRuntimeError& error)>;

  // Opens the store and reads the document. A store that cannot be made is logged; the object then
  // works in memory and keeps nothing.
  RequestManager(std::string embeddedDocument, std::string listKey);
  RequestManager(const RequestManager&) = delete;
  RequestManager& operator=(const RequestManager&) = delete;
  ~RequestManager();

  // Adds a request. Throws Platform::WindowsRuntimeError with kAlreadySubscribed when an equal one
  // (delay apart) is stored, and the JSON layer's error when the text is not a JSON object or the
  // stored list cannot be read. Store failures are logged.
  void PersistRequest(std::wstring_view request);

  // Removes the first stored request with exactly this text; nothing when there is none. Throws the
  // JSON layer's error when the stored list cannot be read. Store failures are logged.
  void RemoveRequest(std::wstring_view request);

  // Removes a one-shot request that has fired; white space in `request` does not count. True when
  // the list no longer holds it, also when it was removed before; false, and logged, when the store
  // or the list failed.
  bool CompleteRequest(std::wstring_view request);

  // Calls `handler` once for every stored request, in stored order. What it throws is logged and
  // handed to `onError` (a standard exception as E_FAIL or E_OUTOFMEMORY), and the walk goes on;
  // what `onError` throws ends it and is the caller's. A stored list that cannot be read is logged
  // and has no requests. No lock is held during the calls.
  void RegisterExistingRequests(const Handler& handler, const ErrorCallback& onError);

  // The stored array's text at construction or the last change; empty when there is none.
  std::wstring StoredRequests() const;

  // The lines for what an operation of the store threw.
  struct FailureTexts {
    const wchar_t* runtime;   // a Windows Runtime error: message and code
    const wchar_t* standard;  // a standard exception: description
  };

 private:
  // Makes the new list's text from the stored one; nothing to leave it.
  using Edit = std::function<std::optional<std::wstring>(const std::wstring& list)>;

  // Applies `edit` to the stored list, or to the copy in memory without a store. False when the
  // store did not take it. Passes on what the store and `edit` throw.
  bool Change(const Edit& edit);

  // Like Change, but what is thrown is logged; the result is then empty.
  std::optional<bool> ChangeAndLog(const FailureTexts& texts, const Edit& edit);

  // Like ChangeAndLog, except that a Windows Runtime error of `edit` passes to the caller: it is
  // the fault of the request or of the stored list, not of the store.
  std::optional<bool> ChangeOrRefuse(const FailureTexts& texts, const Edit& edit);

  bool ChangeCopy(const Edit& edit);
  std::optional<std::wstring> ChangeStored(const Storage::BsonElement* stored, const Edit& edit);
  void CallHandler(const std::wstring& request, const Handler& handler,
                   const ErrorCallback& onError) const;
  void ReportFailure(const std::wstring& request, const Platform::WindowsRuntimeError& error,
                     const ErrorCallback& onError) const;

  std::string documentName;
  std::string key;
  std::unique_ptr<Storage::CapDataStore> store;
  Storage::BsonDocument document;
  Logging::TraceLogger* logger;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
