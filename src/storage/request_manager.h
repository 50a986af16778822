#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/logging.h"
#include "platform/hresult_error.h"

namespace Vx::Tessel::Server::Storage {
class CapDataStore;
}

namespace Vx::Tessel::Server::Services::Orvane {

// The keys of the stored lists, all in the document "OrvaneServiceDocument".
inline constexpr char kServiceDocument[] = "OrvaneServiceDocument";
inline constexpr char kPowerSubscriptions[] = "PowerEventSubscriptions";
inline constexpr char kZephraSubscriptions[] = "ZephraEventSubscriptions";
inline constexpr char kPackageSubscriptions[] = "PackageCatalogEventSubscriptions";

// The list of subscription requests under one key of the shared store: a JSON array whose elements
// are the clients' own request objects. Made for one operation on one thread; several may exist.
class RequestManager {
 public:
  // Called with a stored request's text. May throw winrt::hresult_error.
  using Handler = std::function<void(const std::wstring& request)>;
  using ErrorCallback =
      std::function<void(const std::wstring& request, const winrt::hresult_error& error)>;

  // Opens the store and reads the document. A store that cannot be made is logged; the object then
  // works in memory and keeps nothing.
  RequestManager(std::string documentName, std::string key);
  ~RequestManager();

  // Adds a request. Throws winrt::hresult_error with code 1 when an equal one (delay apart) is
  // stored, and the JSON layer's error when the text is not a JSON object. Store failures are
  // logged.
  void PersistRequest(std::wstring_view request);

  // Removes the first stored request with exactly this text; nothing when there is none.
  void RemoveRequest(std::wstring_view request);

  // Removes a one-shot request that has fired (equality as in RemoveRequest). True when the list no
  // longer holds it, also when it was removed before; false when the store failed.
  bool CompleteRequest(std::wstring_view request);

  // Calls `handler` once for every stored request, in stored order; its winrt::hresult_error is
  // logged and handed to `onError`. No lock is held during the calls.
  void RegisterExistingRequests(const Handler& handler, const ErrorCallback& onError);

  // The stored array's text; empty when there is none.
  std::wstring StoredRequests() const;

 private:
  // (the owner of this file completes the members)
};

}  // namespace Vx::Tessel::Server::Services::Orvane
