#include "hosting/store_hold.h"

#include <stdexcept>
#include <string>

#include <windows.h>

#include "storage/cap_data_store.h"

namespace Vx::Hosting {

StoreHold::StoreHold(StoreUse use, const HoldLimits& limits)
    : services(ServicesMutexFor(use), limits),
      session(OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE,
                         Tessel::Server::Storage::CapDataStore::kMutexName)) {
  if (session != nullptr) {
    AwaitStoreMutex(session.get(), limits);
  } else if (GetLastError() != ERROR_FILE_NOT_FOUND) {
    throw std::runtime_error("the store's mutex cannot be opened, error " +
                             std::to_string(GetLastError()) + "; run as administrator");
  }
}

StoreHold::~StoreHold() {
  if (session != nullptr) ReleaseMutex(session.get());
}

}  // namespace Vx::Hosting
