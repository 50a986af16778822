#include "storage/request_manager.h"

#include <exception>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "storage/cap_data_store.h"
#include "storage/request_list.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Storage::BsonElement;

constexpr wchar_t kNoStore[] =
    L"RequestManager() - Failed to get DataStore. Functionality will be lost. %S";
constexpr wchar_t kPersistFailed[] =
    L"PersistRequest - failed to persist. This functionality won't work properly.";
constexpr RequestManager::FailureTexts kPersistThrew = {
    .runtime = L"PersistRequest - failed to persist: Exception %s, Hresult %i",
    .standard = L"PersistRequest - failed to persist: Exception %S",
};
constexpr RequestManager::FailureTexts kRemoveThrew = {
    .runtime = L"RemoveRequest - failed to persist: Exception %s, Hresult %i",
    .standard = L"RemoveRequest - failed to persist: Exception %S",
};
constexpr RequestManager::FailureTexts kCompleteThrew = {
    .runtime = L"CompleteRequest - failed to persist: Exception %s, Hresult %i",
    .standard = L"CompleteRequest - failed to persist: Exception %S",
};
constexpr wchar_t kUnexpectedElement[] = L"Unexpected JSON array element";
constexpr wchar_t kRegisterFailed[] =
    L"RegisterExistingRequests - failed to register request. HRESULT: %i";

constexpr char kNotReadable[] = "the stored list cannot be read";
constexpr wchar_t kStoredAlready[] = L"the same subscription, the delay apart, is stored already";

constexpr auto kFail = static_cast<std::int32_t>(0x80004005);
constexpr auto kOutOfMemory = static_cast<std::int32_t>(0x8007000E);

// Stands for a stored value that is not a text. It is not a JSON array either, so the list rules
// refuse it and it is never overwritten.
constexpr wchar_t kNotAText[] = L"\xFFFD";

std::wstring TextOf(const std::optional<Storage::BsonView>& value) {
  return value ? value->AsWideText().value_or(kNotAText) : std::wstring();
}

}  // namespace

RequestManager::RequestManager(std::string embeddedDocument, std::string listKey)
    : documentName(std::move(embeddedDocument)),
      key(std::move(listKey)),
      logger(Logging::LogManager::GetLogger()) {
  try {
    store = std::make_unique<Storage::CapDataStore>();
    if (std::optional<Storage::BsonDocument> stored = store->documentAtOpening(documentName)) {
      document = *std::move(stored);
      readable = true;
    }
  } catch (const std::exception& error) {
    store.reset();
    logger->LogError(kNoStore, error.what());
  }
}

RequestManager::~RequestManager() = default;

std::wstring RequestManager::StoredRequests() const {
  return TextOf(document.Find(key));
}

std::wstring RequestManager::RequireStoredRequests() const {
  if (!readable) throw std::runtime_error(kNotReadable);
  return StoredRequests();
}

bool RequestManager::ChangeCopy(const Edit& edit) {
  const std::optional<std::wstring> list = edit(StoredRequests());
  return !list || document.Set(key, BsonElement::Text(*list));
}

std::optional<BsonElement> RequestManager::ChangeStored(const BsonElement* stored,
                                                        const Edit& edit) {
  // Updates the copy first, so that it is right even if the write fails.
  if (stored == nullptr) {
    document.Erase(key);
  } else {
    document.Set(key, *stored);
  }
  const std::optional<std::wstring> list = edit(StoredRequests());
  if (!list) return std::nullopt;
  BsonElement changed = BsonElement::Text(*list);
  document.Set(key, changed);
  return changed;
}

bool RequestManager::Change(const Edit& edit) {
  if (store == nullptr) return ChangeCopy(edit);
  bool edited = false;
  const auto change = [&](const BsonElement* stored) {
    edited = true;
    return ChangeStored(stored, edit);
  };
  try {
    return store->updateMember(documentName, key, change);
  } catch (const std::exception&) {
    if (!edited) ChangeCopy(edit);
    throw;
  }
}

std::optional<bool> RequestManager::ChangeAndLog(const FailureTexts& texts, const Edit& edit) {
  try {
    return Change(edit);
  } catch (const Platform::WindowsRuntimeError& error) {
    logger->LogError(texts.runtime, error.message().c_str(), error.code());
  } catch (const std::exception& error) {
    logger->LogError(texts.standard, error.what());
  }
  return std::nullopt;
}

std::optional<bool> RequestManager::ChangeOrRefuse(const FailureTexts& texts, const Edit& edit) {
  std::optional<Platform::WindowsRuntimeError> refused;
  const std::optional<bool> held =
      ChangeAndLog(texts, [&](const std::wstring& list) -> std::optional<std::wstring> {
        try {
          return edit(list);
        } catch (const Platform::WindowsRuntimeError& error) {
          refused.emplace(error);
          return std::nullopt;
        }
      });
  if (refused) throw Platform::WindowsRuntimeError(*refused);
  return held;
}

bool RequestManager::PersistRequest(std::wstring_view request) {
  const std::optional<bool> held = ChangeOrRefuse(kPersistThrew, [&](const std::wstring& list) {
    std::optional<std::wstring> longer = Storage::ListWith(list, request);
    if (!longer) throw Platform::WindowsRuntimeError(kAlreadySubscribed, kStoredAlready);
    return longer;
  });
  if (held == false) logger->LogError(kPersistFailed);
  return held.value_or(false) && store != nullptr;
}

RequestManager::Removal RequestManager::RemoveRequest(std::wstring_view request) {
  bool found = false;
  const std::optional<bool> held = ChangeOrRefuse(kRemoveThrew, [&](const std::wstring& list) {
    std::optional<std::wstring> shorter = Storage::ListWithout(list, request);
    found = shorter.has_value();
    return shorter;
  });
  if (held == true && !found) return Removal::Unknown;
  return held.value_or(false) ? Removal::Removed : Removal::Failed;
}

bool RequestManager::CompleteRequest(std::wstring_view request) {
  const auto edit = [&](const std::wstring& list) {
    return Storage::ListWithoutCompleted(list, request);
  };
  return ChangeAndLog(kCompleteThrew, edit).value_or(false) && store != nullptr;
}

void RequestManager::RegisterExistingRequests(const Handler& handler,
                                              const ErrorCallback& onError) {
  std::vector<std::optional<std::wstring>> requests;
  try {
    requests = Storage::RequestsOf(StoredRequests());
  } catch (const Platform::WindowsRuntimeError& error) {
    logger->LogError(kRegisterFailed, error.code());
  }
  for (const std::optional<std::wstring>& request : requests) {
    if (request) {
      CallHandler(*request, handler, onError);
    } else {
      logger->LogError(kUnexpectedElement);
    }
  }
}

void RequestManager::CallHandler(const std::wstring& request, const Handler& handler,
                                 const ErrorCallback& onError) const {
  try {
    handler(request);
  } catch (const Platform::WindowsRuntimeError& error) {
    ReportFailure(request, error, onError);
  } catch (const std::bad_alloc&) {
    ReportFailure(request, Platform::WindowsRuntimeError(kOutOfMemory), onError);
  } catch (const std::exception&) {
    ReportFailure(request, Platform::WindowsRuntimeError(kFail), onError);
  }
}

void RequestManager::ReportFailure(const std::wstring& request,
                                   const Platform::WindowsRuntimeError& error,
                                   const ErrorCallback& onError) const {
  logger->LogError(kRegisterFailed, error.code());
  if (onError) onError(request, error);
}

}  // namespace Vx::Tessel::Server::Services::Orvane
