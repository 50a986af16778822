#include "storage/request_manager.h"

#include <exception>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "storage/request_list.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Storage::BsonElement;

// Every command reads the whole store, so without a limit one client could slow down all others.
constexpr std::size_t kMostListed = std::size_t{8} * 1024 * 1024;

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
constexpr char kListsFull[] = "the lists of subscriptions are full";
constexpr wchar_t kStoredAlready[] = L"the same subscription, the delay apart, is stored already";

constexpr auto kFail = static_cast<std::int32_t>(0x80004005);
constexpr auto kOutOfMemory = static_cast<std::int32_t>(0x8007000E);

// Stands for a stored value that is not a string. It is not a JSON array either, so the list
// functions reject it and never overwrite the value.
constexpr wchar_t kNotAText[] = L"\xFFFD";

std::wstring TextOf(const std::optional<Storage::BsonView>& value) {
  return value ? value->AsWideText().value_or(kNotAText) : std::wstring();
}

// Returns the error that `handler` throws, mapping std::exception to E_OUTOFMEMORY or E_FAIL.
std::optional<Platform::WindowsRuntimeError> ErrorOf(const RequestManager::Handler& handler,
                                                     const std::wstring& request) {
  try {
    handler(request);
    return std::nullopt;
  } catch (const Platform::WindowsRuntimeError& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return Platform::WindowsRuntimeError(kOutOfMemory);
  } catch (const std::exception&) {
    return Platform::WindowsRuntimeError(kFail);
  }
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

std::wstring RequestManager::StoredList() const {
  return TextOf(document.Find(key));
}

std::wstring RequestManager::RequireStoredList() const {
  if (!readable) throw std::runtime_error(kNotReadable);
  return StoredList();
}

std::size_t RequestManager::OtherLists() const {
  std::size_t length = 0;
  for (const char* list : {kPowerSubscriptions, kZephraSubscriptions, kPackageSubscriptions}) {
    if (list != key) length += TextOf(document.Find(list)).size();
  }
  return length;
}

std::optional<bool> RequestManager::Change(const FailureTexts& texts, const Edit& edit) {
  std::optional<Platform::WindowsRuntimeError> refused;
  const auto change = [&](const BsonElement* stored) -> std::optional<BsonElement> {
    try {
      const std::optional<std::wstring> list =
          edit(stored == nullptr ? std::wstring() : TextOf(stored->View()));
      return list ? std::optional(BsonElement::Text(*list)) : std::nullopt;
    } catch (const Platform::WindowsRuntimeError& error) {
      refused.emplace(error);
      return std::nullopt;
    }
  };
  std::optional<bool> held;
  try {
    if (store == nullptr) {
      change(nullptr);
      held = true;
    } else {
      held = store->updateMember(documentName, key, change);
    }
  } catch (const Platform::WindowsRuntimeError& error) {
    logger->LogError(texts.runtime, error.message().c_str(), error.code());
  } catch (const std::exception& error) {
    logger->LogError(texts.standard, error.what());
  }
  if (refused) throw Platform::WindowsRuntimeError(*refused);
  return held;
}

bool RequestManager::PersistRequest(std::wstring_view request) {
  const std::optional<bool> held = Change(kPersistThrew, [&](const std::wstring& list) {
    std::optional<std::wstring> longer = Storage::ListWith(list, request);
    if (!longer) throw Platform::WindowsRuntimeError(kAlreadySubscribed, kStoredAlready);
    if (longer->size() + OtherLists() > kMostListed) throw std::length_error(kListsFull);
    return longer;
  });
  if (held == false) logger->LogError(kPersistFailed);
  return held.value_or(false) && store != nullptr;
}

RequestManager::Removal RequestManager::RemoveRequest(std::wstring_view request) {
  bool found = false;
  const std::optional<bool> held = Change(kRemoveThrew, [&](const std::wstring& list) {
    std::optional<std::wstring> shorter = Storage::ListWithout(list, request);
    found = shorter.has_value();
    return shorter;
  });
  if (!held.value_or(false) || store == nullptr) return Removal::Failed;
  return found ? Removal::Removed : Removal::Unknown;
}

bool RequestManager::CompleteRequest(std::wstring_view request) {
  try {
    const std::optional<bool> held = Change(kCompleteThrew, [&](const std::wstring& list) {
      return Storage::ListWithoutCompleted(list, request);
    });
    return held.value_or(false) && store != nullptr;
  } catch (const Platform::WindowsRuntimeError& error) {
    logger->LogError(kCompleteThrew.runtime, error.message().c_str(), error.code());
    return false;
  }
}

void RequestManager::RegisterExistingRequests(const Handler& handler,
                                              const ErrorCallback& onError) {
  std::vector<std::optional<std::wstring>> requests;
  try {
    requests = Storage::RequestsOf(StoredList());
  } catch (const Platform::WindowsRuntimeError& error) {
    logger->LogError(kRegisterFailed, error.code());
  }
  for (const std::optional<std::wstring>& request : requests) {
    if (!request) {
      logger->LogError(kUnexpectedElement);
    } else if (const auto error = ErrorOf(handler, *request)) {
      logger->LogError(kRegisterFailed, error->code());
      if (onError) onError(*request, *error);
    }
  }
}

}  // namespace Vx::Tessel::Server::Services::Orvane
