#include "module/loaded_service.h"

#include <cstdio>
#include <cstdlib>

#include <windows.h>

#include <tlhelp32.h>

#include "support/probe.h"

namespace Vx::Tests {

namespace {

using Tessel::Server::Services::CreateServiceFunction;
using Tessel::Server::Services::kCreateServiceExport;

[[noreturn]] void Fail(const char* what) {
  std::printf("%s: error %lu\n", what, static_cast<unsigned long>(GetLastError()));
  static_cast<void>(std::fflush(stdout));
  std::abort();
}

// Stays loaded to the end of the process, as in the host.
CreateServiceFunction Factory() {
  const std::wstring folder = TestFolder();
  const std::wstring path =
      folder.substr(0, folder.find_last_of(L'\\')) + L"\\bin\\test\\OrvaneService.dll";
  const HMODULE module = LoadLibraryW(path.c_str());
  if (module == nullptr) Fail("the module cannot be loaded");
  const FARPROC factory = GetProcAddress(module, kCreateServiceExport);
  if (factory == nullptr) Fail("the module has no factory");
  return reinterpret_cast<CreateServiceFunction>(reinterpret_cast<void*>(factory));
}

}  // namespace

LoadedService::LoadedService() {
  static const CreateServiceFunction factory = Factory();
  service = factory();
  if (service == nullptr) Fail("the factory made no service");
  service->CreateClientContext(L"client", &context);
}

LoadedService::~LoadedService() {
  service->ReleaseClientContext(&context);
  service->Destroy(1);
}

ModuleReply LoadedService::Execute(std::uint32_t id, const std::wstring& request) {
  wchar_t* response = nullptr;
  ModuleReply reply;
  reply.code = service->ExecuteCommand(context, id, request.c_str(), &response, nullptr);
  if (response != nullptr) reply.response = response;
  service->FreeResponse(response);
  return reply;
}

std::size_t ThreadCount() {
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  std::size_t count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more != FALSE;
       more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  CloseHandle(snapshot);
  return count;
}

bool ThreadsEnd(std::size_t count, std::chrono::milliseconds limit) {
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(limit.count());
  while (ThreadCount() > count) {
    if (GetTickCount64() > end) return false;
    Sleep(1);
  }
  return true;
}

}  // namespace Vx::Tests
