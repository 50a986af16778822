// minimal_host MODULE: a minimal service host, in C. MODULE is the module's full path. Prints each
// step, and exits with 0 if all of them succeeded.
#include <stdio.h>
#include <wchar.h>

#include <windows.h>

#include <objbase.h>

#include "host/vx_service_c.h"

// Runs one command for a client and prints its result. Returns the result code.
static uint32_t Execute(VxServiceObject* service, VxClientContext* context, uint32_t id,
                        const wchar_t* request) {
  wchar_t* response = NULL;  // slot 3 leaves it unchanged if it rejects its arguments
  const uint32_t result =
      service->table->ExecuteCommand(service, context, id, request, &response, NULL);
  wprintf(L"command %u: result 0x%08x, response %ls\n", id, result,
          response != NULL ? response : L"(none)");
  service->table->FreeResponse(service, response);
  return result;
}

static int Run(VxCreateServiceFunction create) {
  VxServiceObject* service = create();
  if (service == NULL) {
    wprintf(L"no memory for the service\n");
    return 1;
  }
  service->table->Start(service);  // returns at once; commands can now be executed
  wprintf(L"started\n");

  VxClientContext* context = NULL;
  uint32_t result = service->table->CreateClientContext(service, L"sample", &context);
  if (result == 0) {
    result = Execute(service, context, 22, L"{}");
    service->table->ReleaseClientContext(service, &context);
  }

  service->table->PowerEventTask(service, PBT_APMRESUMEAUTOMATIC);
  wprintf(L"forwarded power code %u\n", (unsigned)PBT_APMRESUMEAUTOMATIC);

  service->table->Destroy(service, 1);  // bit 0: also frees the object
  wprintf(L"destroyed\n");
  return result != 0;
}

static int Load(const wchar_t* path) {
  // Loads the module by its full path, and its imports only from the system directory, so that no
  // library from another folder is loaded into the process.
  const HMODULE module = LoadLibraryExW(path, NULL, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (module == NULL) {
    wprintf(L"the module cannot be loaded: error %lu\n", GetLastError());
    return 1;
  }
  const VxCreateServiceFunction create =
      (VxCreateServiceFunction)(void*)GetProcAddress(module, VX_CREATE_SERVICE_EXPORT);
  int status = 1;
  if (create == NULL) {
    wprintf(L"this is not the module: it does not export " VX_CREATE_SERVICE_EXPORT "\n");
  } else {
    status = Run(create);
  }
  FreeLibrary(module);  // the module stays loaded until its last thread has exited
  wprintf(L"freed\n");
  return status;
}

int wmain(int count, wchar_t** arguments) {
  if (count != 2) {
    wprintf(L"usage: minimal_host FULL-PATH-OF-THE-MODULE\n");
    return 2;
  }
  // COM security is set once per process, by the module if not here. Dynamic cloaking makes calls
  // to other processes use the identity of the user that the module impersonates.
  HRESULT com = CoInitializeEx(NULL, COINIT_MULTITHREADED);
  if (SUCCEEDED(com)) {
    com = CoInitializeSecurity(NULL, -1, NULL, NULL, RPC_C_AUTHN_LEVEL_DEFAULT,
                               RPC_C_IMP_LEVEL_IMPERSONATE, NULL, EOAC_DYNAMIC_CLOAKING, NULL);
  }
  if (FAILED(com)) {
    wprintf(L"COM cannot be set up: status 0x%08lx\n", (unsigned long)com);
    return 1;
  }
  const int status = Load(arguments[1]);
  CoUninitialize();
  return status;
}
