#include "hosting/loaded_module.h"

#include <cstddef>
#include <stdexcept>

#include <windows.h>

#include "hosting/module_log.h"
#include "hosting/text.h"
#include "hosting/windows_error.h"

namespace Vx::Hosting {

using Tessel::Server::Services::ClientContext;

namespace {

constexpr std::size_t kLongestCaller = 64;  // a longer one makes the module terminate the process

}  // namespace

CommandResult ServiceSession::Execute(std::uint32_t id, const std::wstring& request,
                                      const std::wstring& caller) {
  if (caller.size() > kLongestCaller) {
    throw std::runtime_error("a client's identity has at most 64 characters");
  }
  // Released even if the code below throws because memory ran out.
  const auto release = [this](ClientContext* context) { service->ReleaseClientContext(&context); };
  ClientContext* made = nullptr;
  service->CreateClientContext(caller.c_str(), &made);
  const std::unique_ptr<ClientContext, decltype(release)> context(made, release);
  CommandResult answer;
  const DecisionScope decided(answer);
  wchar_t* text = nullptr;
  answer.code = Slots()->ExecuteCommand(context.get(), id, request.c_str(), &text, nullptr);
  const auto free = [this](wchar_t* response) { service->FreeResponse(response); };
  const std::unique_ptr<wchar_t, decltype(free)> response(text, free);
  if (response != nullptr) answer.text = std::wstring(response.get());
  return answer;
}

void LoadedModule::Unloader::operator()(void* loaded) const noexcept {
  FreeLibrary(static_cast<HMODULE>(loaded));
}

LoadedModule::LoadedModule(const std::wstring& fullPath)
    : module(LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
  if (module == nullptr) throw WindowsError("cannot load " + Utf8(fullPath), GetLastError());
  factory = reinterpret_cast<Tessel::Server::Services::CreateServiceFunction>(
      Find(Tessel::Server::Services::kCreateServiceExport));
  if (factory == nullptr) {
    throw std::runtime_error(Utf8(fullPath) + " is not a service module: it does not export " +
                             Tessel::Server::Services::kCreateServiceExport);
  }
}

void* LoadedModule::Find(const char* name) const {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module.get()), name));
}

ServiceSession LoadedModule::NewService() const {
  ServicesMutexFor(StoreUse::Write);  // throws before the module does any work
  auto* service = factory();
  if (service == nullptr) throw std::runtime_error("the module's factory returned null");
  return ServiceSession(service);
}

}  // namespace Vx::Hosting
