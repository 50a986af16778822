#include "hosting/loaded_module.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include <windows.h>

#include "hosting/module_log.h"
#include "hosting/text.h"
#include "hosting/windows_error.h"

namespace Vx::Hosting {

using Tessel::Server::Services::ClientContext;

namespace {

constexpr std::size_t kLongestCaller = 64;  // a longer one makes the module terminate the process

struct LibraryFreer {
  void operator()(void* loaded) const noexcept { FreeLibrary(static_cast<HMODULE>(loaded)); }
};
using UniqueLibrary = std::unique_ptr<void, LibraryFreer>;

// Both throw std::out_of_range if `offset` is beyond the end of the image.
template <typename Value>
Value ValueAt(std::string_view image, std::size_t offset) {
  Value value{};
  if (image.copy(reinterpret_cast<char*>(&value), sizeof value, offset) < sizeof value) {
    throw std::out_of_range("beyond the end");
  }
  return value;
}
std::string_view TextAt(std::string_view image, std::size_t offset) {
  const std::string_view text = image.substr(offset);
  return text.substr(0, text.find('\0'));
}

bool Exports(std::string_view image, const IMAGE_DATA_DIRECTORY& directory, std::string_view name) {
  if (directory.Size == 0) return false;
  const auto exports = ValueAt<IMAGE_EXPORT_DIRECTORY>(image, directory.VirtualAddress);
  for (std::size_t i = 0; i < exports.NumberOfNames; ++i) {
    const auto at = ValueAt<DWORD>(image, exports.AddressOfNames + i * sizeof(DWORD));
    if (TextAt(image, at) == name) return true;
  }
  return false;
}

// Returns the first imported library that is not in the system directory, or an empty string.
std::string MissingImport(std::string_view image, const IMAGE_DATA_DIRECTORY& directory) {
  for (std::size_t at = directory.VirtualAddress; directory.Size != 0;
       at += sizeof(IMAGE_IMPORT_DESCRIPTOR)) {
    const auto import = ValueAt<IMAGE_IMPORT_DESCRIPTOR>(image, at);
    if (import.Name == 0) break;
    std::string name(TextAt(image, import.Name));
    if (name.find_first_of("\\/:") != std::string::npos) return name;  // a path can name any file
    // Loads the library, because the name of an API set is not that of a file.
    const UniqueLibrary found(
        LoadLibraryExW(Wide(name).c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
    if (found == nullptr) return name;
  }
  return {};
}

}  // namespace

// With this flag, Windows runs no code, loads no imports and tags the low two bits of the handle:
// https://learn.microsoft.com/windows/win32/api/libloaderapi/nf-libloaderapi-loadlibraryexw
std::string WhyNoModule(const std::wstring& fullPath) {
  const UniqueLibrary mapped(
      LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  if (mapped == nullptr)
    return "is missing or not a program, error " + std::to_string(GetLastError());
  const auto* const base =
      static_cast<const char*>(mapped.get()) - (reinterpret_cast<std::uintptr_t>(mapped.get()) & 3);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(
      base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  if (headers->FileHeader.Machine != IMAGE_FILE_MACHINE_AMD64) return "is not for 64-bit Windows";
  const std::string_view image(base, headers->OptionalHeader.SizeOfImage);
  const auto& directories = headers->OptionalHeader.DataDirectory;
  try {
    const std::string missing = MissingImport(image, directories[IMAGE_DIRECTORY_ENTRY_IMPORT]);
    if (!missing.empty()) return "imports " + missing + ", which Windows does not have";
    constexpr const char* kExport = Tessel::Server::Services::kCreateServiceExport;
    return Exports(image, directories[IMAGE_DIRECTORY_ENTRY_EXPORT], kExport)
               ? ""
               : std::string("is not a service module: it does not export ") + kExport;
  } catch (const std::out_of_range&) {
    return "is damaged";
  }
}

CommandResult ServiceSession::Execute(std::uint32_t id, const std::wstring& request,
                                      const std::wstring& caller) {
  if (caller.size() > kLongestCaller) {
    throw std::runtime_error("a client's identity has at most 64 characters");
  }
  // Releases the context even if the code below runs out of memory.
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
  LibraryFreer()(loaded);
}

LoadedModule::LoadedModule(const std::wstring& fullPath)
    : module(LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
  if (module == nullptr) {
    const DWORD error = GetLastError();
    const std::string why = WhyNoModule(fullPath);
    throw WindowsError("cannot load " + Utf8(fullPath), error, why.empty() ? why : "; it " + why);
  }
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
